// tarnwicksrc: see tarnwicksrc.h. Laid out as GStreamer's own live push
// sources are: properties set before start, start/stop open and close the
// reader, create() blocks until there is data or unlock() is called, and
// unlock/unlock_stop wake and re-arm that wait.
//
// The ring has no way to wake a reader (the relay only stores), so create()
// polls it every `poll-interval` microseconds while it is empty; a part
// waits at most one interval. Each poll's parts are queued as buffers and
// handed out one by one.
#include "tarnwicksrc.h"

#include <new>

#include "tarnwickclient/client.h"

GST_DEBUG_CATEGORY_STATIC(tarnwick_src_debug);
#define GST_CAT_DEFAULT tarnwick_src_debug

namespace {

constexpr guint kDefaultPollIntervalUs = 1000;
constexpr gint64 kOpenRetryUs = 100000;   // while the ring does not exist (yet)

// A ring part is one camera datagram: it starts and ends anywhere in the
// stream, so the caps say no alignment at all (h264parse aligns). A sink
// that insists on "au" or "nal" fails to negotiate rather than being lied to.
GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS,
                            GST_STATIC_CAPS("video/x-h264, stream-format = (string) byte-stream"));

enum {
    PROP_0,
    PROP_RING_NAME,
    PROP_START,
    PROP_WAIT_FOR_SPS,
    PROP_POLL_INTERVAL,
    PROP_PARTS,
    PROP_BYTES,
    PROP_LOST_PARTS,
    PROP_OVERRUNS,
    PROP_RESTARTS,
};

}  // namespace

struct _TarnwickSrc {
    GstPushSrc parent;

    // Properties, under the object lock.
    gchar* ring_name;
    TarnwickSrcStart start;
    gboolean wait_for_sps;
    guint poll_interval_us;
    tarnwick::RingCounts stats;   // a copy of the reader's counts after each poll

    // The streaming thread's own, between start() and stop().
    tarnwick::RingReader* reader;
    gboolean opened;
    gboolean missing_said;   // "no ring yet" posted once
    guint64 restarts_seen;
    guint64 lost_seen;
    guint64 parts_seen;      // the reader's part count at the last chunk collected
    gboolean discont;        // the next buffer follows a gap
    GQueue pending;          // buffers made by the last poll, oldest first
    GstBuffer* collecting;   // the part whose chunks are being collected

    // The wait between polls, which unlock() cuts short.
    GMutex wait_lock;
    GCond wait_cond;
    gboolean flushing;
};

G_DEFINE_TYPE(TarnwickSrc, tarnwick_src, GST_TYPE_PUSH_SRC)

GType tarnwick_src_start_get_type(void)
{
    static GType type = 0;
    static const GEnumValue values[] = {
        {TARNWICK_SRC_START_LIVE_EDGE, "The next part the relay writes", "live-edge"},
        {TARNWICK_SRC_START_OLDEST, "The oldest part the ring still holds (up to 200 parts back)", "oldest"},
        {0, nullptr, nullptr},
    };
    if (g_once_init_enter(&type)) {
        GType made = g_enum_register_static("TarnwickSrcStart", values);
        g_once_init_leave(&type, made);
    }
    return type;
}

namespace {

// The reader's sink: each chunk that starts a part (the reader counted a new
// part) begins a buffer; a chunk that continues it is appended.
int Collect(const uint8_t* data, uint32_t length, void* context)
{
    TarnwickSrc* self = static_cast<TarnwickSrc*>(context);
    GstBuffer* chunk = gst_buffer_new_allocate(nullptr, length, nullptr);
    if (chunk == nullptr)
        return -1;
    gst_buffer_fill(chunk, 0, data, length);
    if (self->reader->counts.parts != self->parts_seen || self->collecting == nullptr) {
        self->parts_seen = self->reader->counts.parts;
        self->collecting = chunk;
        g_queue_push_tail(&self->pending, chunk);
    } else {
        // gst_buffer_append takes both and may return another buffer.
        GList* tail = g_queue_peek_tail_link(&self->pending);
        tail->data = gst_buffer_append(GST_BUFFER_CAST(tail->data), chunk);
        self->collecting = GST_BUFFER_CAST(tail->data);
    }
    return 0;
}

void DropPending(TarnwickSrc* self)
{
    GstBuffer* buffer;
    while ((buffer = GST_BUFFER_CAST(g_queue_pop_head(&self->pending))) != nullptr)
        gst_buffer_unref(buffer);
    self->collecting = nullptr;
}

// Waits up to `us` microseconds; FALSE when unlock() asked the thread out.
gboolean Wait(TarnwickSrc* self, gint64 us)
{
    gint64 deadline = g_get_monotonic_time() + us;
    g_mutex_lock(&self->wait_lock);
    while (!self->flushing && g_cond_wait_until(&self->wait_cond, &self->wait_lock, deadline)) {
    }
    gboolean go_on = !self->flushing;
    g_mutex_unlock(&self->wait_lock);
    return go_on;
}

gboolean OpenRing(TarnwickSrc* self)
{
    GST_OBJECT_LOCK(self);
    gchar* name = g_strdup(self->ring_name);
    TarnwickSrcStart start = self->start;
    gboolean wait_for_sps = self->wait_for_sps;
    GST_OBJECT_UNLOCK(self);

    tarnwick::RingReader* reader = self->reader;
    reader->start_at_parameter_set = wait_for_sps;
    gboolean opened = tarnwick::RingReaderOpen(reader, name) == 0;
    if (opened) {
        // The live edge is where the reader stands after opening.
        if (start == TARNWICK_SRC_START_OLDEST)
            tarnwick::RingReaderSeekOldest(reader);
        GST_INFO_OBJECT(self, "reading ring %s from slot %u", name, reader->slot);
        self->restarts_seen = 0;
        self->lost_seen = 0;
        self->parts_seen = 0;
        self->discont = TRUE;
    } else if (!self->missing_said) {
        GST_ELEMENT_WARNING(self, RESOURCE, NOT_FOUND,
                            ("No video ring \"%s\" yet (is tarnwickrelay running?); waiting for it", name),
                            ("shm_open or its size failed; retrying every %d ms", int(kOpenRetryUs / 1000)));
        self->missing_said = TRUE;
    }
    g_free(name);
    return opened;
}

// Stamps the buffers of one poll, marks a gap, says a restart, publishes the counts.
void AfterPoll(TarnwickSrc* self)
{
    const tarnwick::RingCounts& counts = self->reader->counts;
    if (counts.restarts != self->restarts_seen) {
        GST_ELEMENT_WARNING(self, RESOURCE, READ,
                            ("The relay restarted, or its video ring was cleared or made anew; reading goes on"),
                            ("writer restarts seen: %" G_GUINT64_FORMAT, counts.restarts));
        self->restarts_seen = counts.restarts;
        self->discont = TRUE;
    }
    if (counts.lost_parts != self->lost_seen) {
        GST_DEBUG_OBJECT(self, "%" G_GUINT64_FORMAT " parts lost", counts.lost_parts - self->lost_seen);
        self->lost_seen = counts.lost_parts;
        self->discont = TRUE;
    }

    if (!g_queue_is_empty(&self->pending)) {
        GstClockTime stamp = GST_CLOCK_TIME_NONE;
        GstClock* clock = gst_element_get_clock(GST_ELEMENT(self));
        if (clock != nullptr) {
            GstClockTime now = gst_clock_get_time(clock);
            GstClockTime base = gst_element_get_base_time(GST_ELEMENT(self));
            stamp = now > base ? now - base : 0;
            gst_object_unref(clock);
        }
        for (GList* link = self->pending.head; link != nullptr; link = link->next) {
            GstBuffer* buffer = GST_BUFFER_CAST(link->data);
            GST_BUFFER_PTS(buffer) = stamp;
            GST_BUFFER_DTS(buffer) = stamp;
            if (self->discont) {
                GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
                self->discont = FALSE;
            }
        }
    }
    self->collecting = nullptr;

    GST_OBJECT_LOCK(self);
    self->stats = counts;
    GST_OBJECT_UNLOCK(self);
}

GstFlowReturn Create(GstPushSrc* push, GstBuffer** out)
{
    TarnwickSrc* self = TARNWICK_SRC(push);
    for (;;) {
        GstBuffer* next = GST_BUFFER_CAST(g_queue_pop_head(&self->pending));
        if (next != nullptr) {
            *out = next;
            return GST_FLOW_OK;
        }
        if (!self->opened) {
            self->opened = OpenRing(self);
            if (!self->opened) {
                if (!Wait(self, kOpenRetryUs))
                    return GST_FLOW_FLUSHING;
                continue;
            }
        }
        int delivered = tarnwick::RingReaderPoll(self->reader, Collect, self);
        AfterPoll(self);
        if (delivered < 0) {
            GST_ELEMENT_ERROR(self, RESOURCE, NO_SPACE_LEFT, ("Cannot allocate a buffer"), (nullptr));
            return GST_FLOW_ERROR;
        }
        if (!g_queue_is_empty(&self->pending))
            continue;
        GST_OBJECT_LOCK(self);
        gint64 interval = self->poll_interval_us;
        GST_OBJECT_UNLOCK(self);
        if (!Wait(self, interval))
            return GST_FLOW_FLUSHING;
    }
}

gboolean Start(GstBaseSrc* base)
{
    TarnwickSrc* self = TARNWICK_SRC(base);
    self->reader = new (std::nothrow) tarnwick::RingReader();
    if (self->reader == nullptr) {
        GST_ELEMENT_ERROR(self, RESOURCE, NO_SPACE_LEFT, ("Cannot allocate the ring reader"), (nullptr));
        return FALSE;
    }
    self->missing_said = FALSE;
    self->opened = OpenRing(self);   // a ring that is not there yet is waited for in create()
    GST_OBJECT_LOCK(self);
    self->stats = tarnwick::RingCounts{};
    GST_OBJECT_UNLOCK(self);
    return TRUE;
}

gboolean Stop(GstBaseSrc* base)
{
    TarnwickSrc* self = TARNWICK_SRC(base);
    DropPending(self);
    if (self->reader != nullptr) {
        tarnwick::RingReaderClose(self->reader);
        delete self->reader;
        self->reader = nullptr;
    }
    self->opened = FALSE;
    return TRUE;
}

gboolean Unlock(GstBaseSrc* base)
{
    TarnwickSrc* self = TARNWICK_SRC(base);
    g_mutex_lock(&self->wait_lock);
    self->flushing = TRUE;
    g_cond_broadcast(&self->wait_cond);
    g_mutex_unlock(&self->wait_lock);
    return TRUE;
}

gboolean UnlockStop(GstBaseSrc* base)
{
    TarnwickSrc* self = TARNWICK_SRC(base);
    g_mutex_lock(&self->wait_lock);
    self->flushing = FALSE;
    g_mutex_unlock(&self->wait_lock);
    return TRUE;
}

// The caps are fixed and say no alignment: they are set as they are, never
// narrowed to what a peer would like (see src_template).
gboolean Negotiate(GstBaseSrc* base)
{
    GstCaps* caps = gst_pad_get_pad_template_caps(GST_BASE_SRC_PAD(base));
    gboolean ok = gst_base_src_set_caps(base, caps);
    gst_caps_unref(caps);
    return ok;
}

// Live, with no latency of its own: a buffer is stamped when the poll finds
// it and pushed at once. No bound on the maximum: the ring keeps about 200
// parts whatever downstream does (a reader that falls a whole ring behind
// counts an overrun), so this element drops nothing to keep a deadline.
gboolean Query(GstBaseSrc* base, GstQuery* query)
{
    if (GST_QUERY_TYPE(query) != GST_QUERY_LATENCY)
        return GST_BASE_SRC_CLASS(tarnwick_src_parent_class)->query(base, query);
    gst_query_set_latency(query, TRUE, 0, GST_CLOCK_TIME_NONE);
    return TRUE;
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* property)
{
    TarnwickSrc* self = TARNWICK_SRC(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_RING_NAME:
        g_free(self->ring_name);
        self->ring_name = g_value_dup_string(value);
        if (self->ring_name == nullptr)
            self->ring_name = g_strdup(tarnwick::wire::kFrameBufferName);
        break;
    case PROP_START: self->start = static_cast<TarnwickSrcStart>(g_value_get_enum(value)); break;
    case PROP_WAIT_FOR_SPS: self->wait_for_sps = g_value_get_boolean(value); break;
    case PROP_POLL_INTERVAL: self->poll_interval_us = g_value_get_uint(value); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property); break;
    }
    GST_OBJECT_UNLOCK(self);
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* property)
{
    TarnwickSrc* self = TARNWICK_SRC(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_RING_NAME: g_value_set_string(value, self->ring_name); break;
    case PROP_START: g_value_set_enum(value, self->start); break;
    case PROP_WAIT_FOR_SPS: g_value_set_boolean(value, self->wait_for_sps); break;
    case PROP_POLL_INTERVAL: g_value_set_uint(value, self->poll_interval_us); break;
    case PROP_PARTS: g_value_set_uint64(value, self->stats.parts); break;
    case PROP_BYTES: g_value_set_uint64(value, self->stats.bytes); break;
    case PROP_LOST_PARTS: g_value_set_uint64(value, self->stats.lost_parts); break;
    case PROP_OVERRUNS: g_value_set_uint64(value, self->stats.overruns); break;
    case PROP_RESTARTS: g_value_set_uint64(value, self->stats.restarts); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, property); break;
    }
    GST_OBJECT_UNLOCK(self);
}

void Finalize(GObject* object)
{
    TarnwickSrc* self = TARNWICK_SRC(object);
    g_free(self->ring_name);
    g_mutex_clear(&self->wait_lock);
    g_cond_clear(&self->wait_cond);
    G_OBJECT_CLASS(tarnwick_src_parent_class)->finalize(object);
}

GParamSpec* Counter(const char* name, const char* nick, const char* blurb)
{
    return g_param_spec_uint64(name, nick, blurb, 0, G_MAXUINT64, 0,
                               GParamFlags(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS));
}

}  // namespace

static void tarnwick_src_class_init(TarnwickSrcClass* klass)
{
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    GstBaseSrcClass* base_class = GST_BASE_SRC_CLASS(klass);
    GstPushSrcClass* push_class = GST_PUSH_SRC_CLASS(klass);

    object_class->set_property = SetProperty;
    object_class->get_property = GetProperty;
    object_class->finalize = Finalize;

    const auto settable = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    g_object_class_install_property(
        object_class, PROP_RING_NAME,
        g_param_spec_string("ring-name", "Ring name",
                            "POSIX shared-memory name of the relay's video ring (shm_open name, no leading slash)",
                            tarnwick::wire::kFrameBufferName, settable));
    g_object_class_install_property(
        object_class, PROP_START,
        g_param_spec_enum("start", "Start", "Where reading starts: the live edge, or the oldest part the ring holds",
                          TARNWICK_TYPE_SRC_START, TARNWICK_SRC_START_LIVE_EDGE, settable));
    g_object_class_install_property(
        object_class, PROP_WAIT_FOR_SPS,
        g_param_spec_boolean("wait-for-sps", "Wait for SPS",
                             "Hand out nothing before a part that begins with a sequence parameter set (a decoder "
                             "can start there)",
                             TRUE, settable));
    g_object_class_install_property(
        object_class, PROP_POLL_INTERVAL,
        g_param_spec_uint("poll-interval", "Poll interval",
                          "Microseconds between looks at the ring while it has nothing new (the relay cannot wake "
                          "a reader; a part waits at most this long)",
                          100, 1000000, kDefaultPollIntervalUs,
                          GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING)));
    g_object_class_install_property(
        object_class, PROP_PARTS,
        Counter("parts", "Parts", "Parts (camera datagrams) read from the ring since the element started"));
    g_object_class_install_property(object_class, PROP_BYTES,
                                    Counter("bytes", "Bytes", "Bytes of H.264 read from the ring"));
    g_object_class_install_property(
        object_class, PROP_LOST_PARTS,
        Counter("lost-parts", "Lost parts",
                "Parts the relay wrote that were overwritten before they were read (gaps in the part numbers)"));
    g_object_class_install_property(
        object_class, PROP_OVERRUNS,
        Counter("overruns", "Overruns", "Times the reader fell a whole ring (200 parts) behind the relay"));
    g_object_class_install_property(
        object_class, PROP_RESTARTS,
        Counter("restarts", "Writer restarts",
                "Times the relay restarted, or its ring was cleared or made anew (each posts a warning message)"));

    gst_element_class_set_static_metadata(
        element_class, "tarnwickrelay video ring source", "Source/Video",
        "The live H.264 of the DJI Pocket 2 camera from tarnwickrelay's shared-memory ring, timestamped at "
        "arrival. Buffers are camera datagrams (unaligned byte-stream): put h264parse after it.",
        "tarnwickrelay developers <maintainers@tarnwickrelay.org>");
    gst_element_class_add_static_pad_template(element_class, &src_template);

    base_class->start = Start;
    base_class->stop = Stop;
    base_class->unlock = Unlock;
    base_class->unlock_stop = UnlockStop;
    base_class->negotiate = Negotiate;
    base_class->query = Query;
    push_class->create = Create;

    gst_type_mark_as_plugin_api(TARNWICK_TYPE_SRC_START, GstPluginAPIFlags(0));
    GST_DEBUG_CATEGORY_INIT(tarnwick_src_debug, "tarnwicksrc", 0, "tarnwickrelay video ring source");
}

static void tarnwick_src_init(TarnwickSrc* self)
{
    self->ring_name = g_strdup(tarnwick::wire::kFrameBufferName);
    self->start = TARNWICK_SRC_START_LIVE_EDGE;
    self->wait_for_sps = TRUE;
    self->poll_interval_us = kDefaultPollIntervalUs;
    g_queue_init(&self->pending);
    g_mutex_init(&self->wait_lock);
    g_cond_init(&self->wait_cond);
    gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
    gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
}

gboolean tarnwick_src_register(GstPlugin* plugin)
{
    return gst_element_register(plugin, "tarnwicksrc", GST_RANK_NONE, TARNWICK_TYPE_SRC);
}
