// The plugin "zvr": the source element zvrsrc.

#include <gst/gst.h>

#include "gstzvrsrc.h"

#ifndef PACKAGE
#define PACKAGE "zvr_media_proxy"
#endif

static gboolean pluginInit(GstPlugin* plugin) { return GST_ELEMENT_REGISTER(zvrsrc, plugin); }

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, zvr,
                  "Plays zvr+ URIs through the media service's remote players", pluginInit,
                  ZVR_GST_VERSION, "Proprietary", "zvr_media_proxy", "https://localhost/zvr")
