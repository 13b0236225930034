// tarnwick-rtsp: the relay's live video as an RTSP stream, on gst-rtsp-server.
//
//   tarnwick-rtsp [--address=0.0.0.0] [--port=8554] [--path=/live] [--ring-name=tarnwickrelay_framebuffer]
//                 [--poll-interval=1000]
//
// One shared media: the first client's DESCRIBE builds the one pipeline
//
//   tarnwicksrc ! h264parse ! video/x-h264,alignment=au ! rtph264pay config-interval=-1
//
// and every client that comes while it plays is added to its sinks, so all
// of them share the one ring reader. The parameter sets go out in band before
// every key frame, so a client that joins mid-stream decodes from the next
// one. The pipeline never waits for a client: UDP clients are sent to
// without blocking (a vanished one only costs a sendto until its session
// times out), and a TCP client that does not read has its data dropped once
// its backlog is full (gst-rtsp-server's drop-backlog) rather than holding
// the others back. The sinks do not pace the stream against the clock (rate
// control off): each RTP packet leaves as soon as its access unit is
// complete. When the last client leaves, the pipeline stops and the ring
// reader goes; the next client starts them again.
//
// Lines on standard output: where it serves, each client that comes and goes,
// and the element's warnings (a relay restart). Ends on SIGINT or SIGTERM.
#include <getopt.h>
#include <glib-unix.h>
#include <gst/gst.h>
#include <gst/rtsp-server/rtsp-server.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "tarnwicksrc.h"
#include "tool_options.h"

namespace {

constexpr const char* kTool = "tarnwick-rtsp";

struct Options {
    std::string address = "0.0.0.0";
    long port = 8554;
    std::string path = "/live";
    std::string ring_name = "tarnwickrelay_framebuffer";
    long poll_interval_us = 1000;
};

void Usage(FILE* out)
{
    fputs("Usage: tarnwick-rtsp [options]\n"
          "  --address=<addr>     address to listen on (default 0.0.0.0, every interface)\n"
          "  --port=<n>           RTSP port (default 8554; 0 picks a free one)\n"
          "  --path=<path>        the stream's path (default /live)\n"
          "  --ring-name=<name>   the relay's video ring (default tarnwickrelay_framebuffer)\n"
          "  --poll-interval=<us> how often the ring is looked at while it has nothing new (default 1000)\n"
          "  --help               this text\n"
          "Serves rtsp://<addr>:<port><path>: H.264 over RTP (UDP or TCP), parameter sets before each key frame.\n",
          out);
}

// Names that go into the pipeline description whole.
bool PlainName(const std::string& text)
{
    if (text.empty() || text.size() > 200)
        return false;
    for (char c : text)
        if (!(g_ascii_isalnum(c) || c == '_' || c == '-' || c == '.'))
            return false;
    return true;
}

bool PlainPath(const std::string& text)
{
    if (text.size() < 2 || text[0] != '/' || text.size() > 200)
        return false;
    for (char c : text)
        if (!(g_ascii_isalnum(c) || c == '_' || c == '-' || c == '.' || c == '/'))
            return false;
    return true;
}

int ParseOptions(int argc, char** argv, Options* options)
{
    enum { kAddress = 1, kPort, kPath, kRingName, kPollInterval, kHelp };
    static const struct option long_options[] = {
        {"address", required_argument, nullptr, kAddress}, {"port", required_argument, nullptr, kPort},
        {"path", required_argument, nullptr, kPath},       {"ring-name", required_argument, nullptr, kRingName},
        {"poll-interval", required_argument, nullptr, kPollInterval},
        {"help", no_argument, nullptr, kHelp},             {nullptr, 0, nullptr, 0},
    };
    for (;;) {
        switch (getopt_long(argc, argv, "", long_options, nullptr)) {
        case -1:
            if (ToolArgumentsDone(kTool, argc, argv, optind))
                return kToolOptionsOk;
            break;
        case kAddress:
            options->address = optarg;
            if (options->address.empty() || options->address.size() > 100) {
                fprintf(stderr, "%s: --address: '%s' is not an address\n", kTool, optarg);
                break;
            }
            continue;
        case kPort:
            if (!ParseToolNumber(kTool, "port", optarg, 0, 65535, &options->port))
                break;
            continue;
        case kPath:
            options->path = optarg;
            if (!PlainPath(options->path)) {
                fprintf(stderr, "%s: --path: '%s' must start with / and hold letters, digits and . _ - /\n", kTool,
                        optarg);
                break;
            }
            continue;
        case kRingName:
            options->ring_name = optarg;
            if (!PlainName(options->ring_name)) {
                fprintf(stderr, "%s: --ring-name: '%s' must hold letters, digits and . _ -\n", kTool, optarg);
                break;
            }
            continue;
        case kPollInterval:
            if (!ParseToolNumber(kTool, "poll-interval", optarg, 100, 1000000, &options->poll_interval_us))
                break;
            continue;
        case kHelp: Usage(stdout); return 0;
        default: break;   // getopt_long named the option
        }
        Usage(stderr);
        return kToolUsageError;
    }
}

// The element's warnings (a relay restart, a ring not there yet) and any
// error, said on standard output; the media handles them as usual after.
GstBusSyncReply SayMessages(GstBus*, GstMessage* message, gpointer)
{
    GError* error = nullptr;
    gchar* debug = nullptr;
    const char* kind = nullptr;
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_WARNING) {
        gst_message_parse_warning(message, &error, &debug);
        kind = "warning";
    } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        gst_message_parse_error(message, &error, &debug);
        kind = "error";
    }
    if (kind != nullptr) {
        printf("%s from %s: %s\n", kind, GST_OBJECT_NAME(GST_MESSAGE_SRC(message)), error->message);
        fflush(stdout);
        g_clear_error(&error);
        g_free(debug);
    }
    return GST_BUS_PASS;
}

// gst-rtsp-server hands RTP for TCP clients to an appsink, which its send
// thread empties as long as some TCP client can take more. With no such
// client (the only one stopped reading) the appsink would fill and block the
// whole pipeline, UDP clients and the ring reader included. So it drops its
// oldest buffers instead: the stalled client loses them (and is dropped as
// slow once its backlog is too old), the others never wait.
constexpr guint kAppSinkBuffers = 1000;   // RTP packets: about 1.4 MB

void OnElementAdded(GstBin*, GstBin*, GstElement* element, gpointer)
{
    GstElementFactory* factory = gst_element_get_factory(element);
    if (factory != nullptr && g_strcmp0(GST_OBJECT_NAME(factory), "appsink") == 0)
        g_object_set(element, "drop", TRUE, "max-buffers", kAppSinkBuffers, nullptr);
    // Without pacing against the clock: gst-rtsp-server 1.22 leaves its sinks
    // synchronised (some 200 ms behind) whatever the media's rate control says.
    if (factory != nullptr && (g_strcmp0(GST_OBJECT_NAME(factory), "multiudpsink") == 0 ||
                               g_strcmp0(GST_OBJECT_NAME(factory), "appsink") == 0))
        g_object_set(element, "sync", FALSE, nullptr);
}

void OnMediaConfigure(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer)
{
    gst_rtsp_media_set_rate_control(media, FALSE);
    // The launch line's bin sits in the media's pipeline; the pipeline's own
    // bus (not the bin's, which is the pipeline's internal child bus) is the
    // one the media watches.
    GstElement* element = gst_rtsp_media_get_element(media);
    GstObject* pipeline = element != nullptr ? gst_object_get_parent(GST_OBJECT(element)) : nullptr;
    if (pipeline != nullptr && GST_IS_PIPELINE(pipeline)) {
        GstBus* bus = gst_pipeline_get_bus(GST_PIPELINE(pipeline));
        gst_bus_set_sync_handler(bus, SayMessages, nullptr, nullptr);
        gst_object_unref(bus);
        // The streams' sinks join the pipeline when the media is prepared, after this.
        g_signal_connect(pipeline, "deep-element-added", G_CALLBACK(OnElementAdded), nullptr);
    }
    if (pipeline != nullptr)
        gst_object_unref(pipeline);
    if (element != nullptr)
        gst_object_unref(element);
    puts("media made: one ring reader for every client");
    fflush(stdout);
}

void OnClientClosed(GstRTSPClient*, gpointer data)
{
    printf("client %s gone\n", static_cast<const char*>(data));
    fflush(stdout);
}

void OnClientConnected(GstRTSPServer*, GstRTSPClient* client, gpointer)
{
    GstRTSPConnection* connection = gst_rtsp_client_get_connection(client);
    const char* ip = connection != nullptr ? gst_rtsp_connection_get_ip(connection) : nullptr;
    gchar* who = g_strdup(ip != nullptr ? ip : "?");
    printf("client %s connected\n", who);
    fflush(stdout);
    g_signal_connect_data(client, "closed", G_CALLBACK(OnClientClosed), who,
                          [](gpointer data, GClosure*) { g_free(data); }, GConnectFlags(0));
}

gboolean OnStopSignal(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    int parsed = ParseOptions(argc, argv, &options);
    if (parsed != kToolOptionsOk)
        return parsed;

    gst_init(nullptr, nullptr);
    // The element is linked in, so no plugin path is needed; when GStreamer
    // knows the installed plugin (the same code, from the same package) that
    // one is used, as its type may already be registered under the name.
    GstElementFactory* installed = gst_element_factory_find("tarnwicksrc");
    if (installed != nullptr)
        gst_object_unref(installed);
    else if (!tarnwick_src_register(nullptr)) {
        fprintf(stderr, "%s: cannot register tarnwicksrc\n", kTool);
        return 1;
    }
    for (const char* needed : {"h264parse", "rtph264pay"}) {
        GstElementFactory* factory = gst_element_factory_find(needed);
        if (factory == nullptr) {
            fprintf(stderr, "%s: GStreamer element %s is missing (gstreamer1.0-plugins-bad and -good)\n", kTool,
                    needed);
            return 1;
        }
        gst_object_unref(factory);
    }

    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    GstRTSPServer* server = gst_rtsp_server_new();
    gst_rtsp_server_set_address(server, options.address.c_str());
    gst_rtsp_server_set_service(server, std::to_string(options.port).c_str());

    GstRTSPMediaFactory* factory = gst_rtsp_media_factory_new();
    std::string launch = "( tarnwicksrc ring-name=" + options.ring_name +
                         " poll-interval=" + std::to_string(options.poll_interval_us) +
                         " ! h264parse ! video/x-h264,alignment=au"
                         " ! rtph264pay name=pay0 pt=96 config-interval=-1 )";
    gst_rtsp_media_factory_set_launch(factory, launch.c_str());
    gst_rtsp_media_factory_set_shared(factory, TRUE);
    gst_rtsp_media_factory_set_protocols(factory,
                                         GstRTSPLowerTrans(GST_RTSP_LOWER_TRANS_UDP | GST_RTSP_LOWER_TRANS_TCP));
    g_signal_connect(factory, "media-configure", G_CALLBACK(OnMediaConfigure), nullptr);
    GstRTSPMountPoints* mounts = gst_rtsp_server_get_mount_points(server);
    gst_rtsp_mount_points_add_factory(mounts, options.path.c_str(), factory);   // takes the factory
    g_object_unref(mounts);
    g_signal_connect(server, "client-connected", G_CALLBACK(OnClientConnected), nullptr);

    guint source = gst_rtsp_server_attach(server, nullptr);
    if (source == 0) {
        fprintf(stderr, "%s: cannot listen on %s port %ld\n", kTool, options.address.c_str(), options.port);
        g_object_unref(server);
        g_main_loop_unref(loop);
        return 1;
    }
    printf("serving rtsp://%s:%d%s\n", options.address.c_str(), gst_rtsp_server_get_bound_port(server),
           options.path.c_str());
    fflush(stdout);

    g_unix_signal_add(SIGINT, OnStopSignal, loop);
    g_unix_signal_add(SIGTERM, OnStopSignal, loop);
    g_main_loop_run(loop);

    g_source_remove(source);
    g_object_unref(server);
    g_main_loop_unref(loop);
    puts("stopped");
    return 0;
}
