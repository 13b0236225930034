// The GStreamer plugin "tarnwick": the tarnwicksrc element (tarnwicksrc.h).
#include <gst/gst.h>

#include "tarnwicksrc.h"

#ifndef PACKAGE
#define PACKAGE "tarnwickrelay"
#endif

static gboolean PluginInit(GstPlugin* plugin)
{
    return tarnwick_src_register(plugin);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, tarnwick,
                  "tarnwickrelay's live camera video as a GStreamer source", PluginInit, TARNWICK_VERSION,
                  "Proprietary", "tarnwickrelay", "tarnwickrelay")
