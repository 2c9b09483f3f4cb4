/// The plugin qev: elements that move media between processes over a packet buffer.
#include <gst/gst.h>

#include "LogControl.h"
#include "QevSink.h"
#include "QevSrc.h"

GST_DEBUG_CATEGORY_STATIC(libraryCategory);

/// The library's records belong into GStreamer's log, not on the terminal of gst-launch.
static void LogToGStreamer() {
    GST_DEBUG_CATEGORY_INIT(libraryCategory, "qev", 0, "the shared-memory library");
    qel::LogControl::SetSink([](const qel::LogRecord& record) {
        const bool isError = record.level <= qel::LogLevel::Error;
        gst_debug_log(libraryCategory, isError ? GST_LEVEL_ERROR : GST_LEVEL_INFO,
                      record.sourcePath.c_str(), record.operation.c_str(),
                      static_cast<gint>(record.line), nullptr, "%s", record.text.c_str());
    });
}

static gboolean RegisterElements(GstPlugin* plugin) {
    const bool isDone = GST_ELEMENT_REGISTER(qevsink, plugin) != FALSE &&
                        GST_ELEMENT_REGISTER(qevsrc, plugin) != FALSE;
    LogToGStreamer();
    return isDone ? TRUE : FALSE;
}

#define PACKAGE "qev"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, qev,
                  "Media between processes over a ring in shared memory", RegisterElements,
                  QEV_VERSION, "Apache 2.0", "qev", "Unknown package origin")
