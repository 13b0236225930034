#pragma once
// tarnwicksrc: the relay's video ring as a live GStreamer source (plugin
// "tarnwick"). A thin GstPushSrc over the client library's ring reader
// (tarnwick::RingReader): it polls the ring, and each part it hands out (one
// camera datagram) becomes one buffer, stamped with the pipeline's running
// time at which the poll found it. See docs/interface.md, "GStreamer".
#include <gst/base/gstpushsrc.h>
#include <gst/gst.h>

G_BEGIN_DECLS

#define TARNWICK_TYPE_SRC (tarnwick_src_get_type())
G_DECLARE_FINAL_TYPE(TarnwickSrc, tarnwick_src, TARNWICK, SRC, GstPushSrc)

// Where reading starts when the element starts.
typedef enum {
    TARNWICK_SRC_START_LIVE_EDGE = 0,   // the next part the relay writes
    TARNWICK_SRC_START_OLDEST = 1,      // the oldest part the ring still holds
} TarnwickSrcStart;

#define TARNWICK_TYPE_SRC_START (tarnwick_src_start_get_type())
GType tarnwick_src_start_get_type(void);

// Registers the element with `plugin`, or with none (a program that links
// the element, as tarnwick-rtsp does).
gboolean tarnwick_src_register(GstPlugin* plugin);

G_END_DECLS
