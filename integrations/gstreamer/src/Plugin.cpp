/// The plugin qev: elements that move media between processes over a packet buffer.
#include <gst/gst.h>

#include "QevSink.h"
#include "QevSrc.h"

static gboolean RegisterElements(GstPlugin* plugin) {
    const bool isDone = GST_ELEMENT_REGISTER(qevsink, plugin) != FALSE &&
                        GST_ELEMENT_REGISTER(qevsrc, plugin) != FALSE;
    return isDone ? TRUE : FALSE;
}

#define PACKAGE "qev"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, qev,
                  "Media between processes over a ring in shared memory", RegisterElements,
                  QEV_VERSION, "Apache 2.0", "qev", "Unknown package origin")
