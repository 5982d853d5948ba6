// zvrsrc: a source bin for zvr+file://, zvr+http:// and zvr+https:// URIs.
//
// The URI without its "zvr+" prefix is the source a remote player of the media service plays.
// Going from READY to PAUSED, the element creates a proxy and starts it on a worker thread of its
// own; when the service's local URL arrives, an internal souphttpsrc reads it behind the
// sometimes src pad "src", and the state change, which returned ASYNC, completes. Going back to
// READY stops the proxy and drops the internal source.

#ifndef ZVR_GST_GSTZVRSRC_H_
#define ZVR_GST_GSTZVRSRC_H_

#include <gst/gst.h>

G_BEGIN_DECLS

#define GST_TYPE_ZVR_SRC (gst_zvr_src_get_type())
G_DECLARE_FINAL_TYPE(GstZvrSrc, gst_zvr_src, GST, ZVR_SRC, GstBin)

GST_ELEMENT_REGISTER_DECLARE(zvrsrc);

G_END_DECLS

#endif  // ZVR_GST_GSTZVRSRC_H_
