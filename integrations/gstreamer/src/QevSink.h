#pragma once

#include <gst/base/gstbasesink.h>

G_BEGIN_DECLS

G_DECLARE_FINAL_TYPE(GstQevSink, gst_qev_sink, GST, QEV_SINK, GstBaseSink)

GST_ELEMENT_REGISTER_DECLARE(qevsink)

G_END_DECLS
