// kr7src: a live push source of a KR7 fingerprint scanner's frames and
// finger results, through the frame-grabber plug-in libnorvakkr7fg.so.1
// (loaded at run time by kr7host, like any host).
#pragma once

#include <gst/base/gstpushsrc.h>
#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_KR7_SRC (gst_kr7_src_get_type())
G_DECLARE_FINAL_TYPE(GstKr7Src, gst_kr7_src, GST, KR7_SRC, GstPushSrc)

// The capture modes, as the mode property takes them.
#define GST_TYPE_KR7_SRC_MODE (gst_kr7_src_mode_get_type())
GType gst_kr7_src_mode_get_type(void);

G_END_DECLS
