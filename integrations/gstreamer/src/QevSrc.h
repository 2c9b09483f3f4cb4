#pragma once

#include <gst/base/gstpushsrc.h>

G_BEGIN_DECLS

G_DECLARE_FINAL_TYPE(GstQevSrc, gst_qev_src, GST, QEV_SRC, GstPushSrc)

GST_ELEMENT_REGISTER_DECLARE(qevsrc)

G_END_DECLS
