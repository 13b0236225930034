#include "app/main_app_link.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "control/app_commands.h"
#include "control/remote_control.h"
#include "state/status_report.h"

MainAppLink main_app_link;

int MainAppLinkInit(const char* destination_host, int32_t destination_port)
{
    MainAppLink& link = main_app_link;
    link.camera_state = GetCameraState();
    StartRemoteControl();
    link.notice_socket = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    snprintf(link.destination_host, sizeof link.destination_host, "%s", destination_host);
    link.destination_port = destination_port;
    if (link.command_endpoint.Open(0) != 0)
        return -1;
    link.command_endpoint.timeout_ms = kUdpDefaultTimeoutMs;
    link.command_endpoint.clear_before_receive = true;
    link.command_endpoint.on_receive = HandleAppDatagram;
    link.command_endpoint.AttachBuffer(link.command_buffer, sizeof link.command_buffer);
    StatusReportOutputs outputs;
    outputs.send_to_app = SendToMainApp;
    outputs.send_notice = SendLocalNotice;
    outputs.check_app_peer = [] { main_app_link.command_endpoint.CheckPeerTimeout(); };
    AttachStatusReportOutputs(outputs);
    if (pthread_create(&link.status_thread, nullptr, StatusThreadMain, link.camera_state) != 0)
        return -1;
    return 0;
}

int SendToMainApp(const void* data, size_t length)
{
    const MainAppLink& link = main_app_link;
    if (link.destination_host[0] == '\0' || link.destination_port == 0 || length > UINT16_MAX)
        return -1;
    return main_app_link.command_endpoint.SendTo(data, static_cast<uint16_t>(length), link.destination_host,
                                                 static_cast<uint16_t>(link.destination_port));
}

int SendLocalNotice(const char* text)
{
    if (main_app_link.notice_socket < 0)
        return -1;
    struct sockaddr_in destination;
    memset(&destination, 0, sizeof destination);
    destination.sin_family = AF_INET;
    destination.sin_port = htons(kLocalNoticePort);
    inet_aton(kLocalNoticeHost, &destination.sin_addr);
    ssize_t sent = sendto(main_app_link.notice_socket, text, strlen(text), 0,
                          reinterpret_cast<struct sockaddr*>(&destination), sizeof destination);
    return sent < 0 ? -1 : static_cast<int>(sent);
}
