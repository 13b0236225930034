#include "control/command_templates.h"

#include <cstdio>
#include <cstring>

#include "camera/camera_link.h"

CommandFrame FrameFrom(const CommandTemplate& image)
{
    CommandFrame frame;
    frame.length = image.length;
    memcpy(frame.bytes, image.image, sizeof frame.bytes);
    return frame;
}

namespace {

// True when `count` payload bytes from `index` lie inside the payload.
bool PayloadHas(const CommandFrame* frame, size_t index, size_t count)
{
    size_t payload_length = frame->length - kFrameMinimumSize;
    return index <= payload_length && count <= payload_length - index;
}

}  // namespace

void SetPayloadByte(CommandFrame* frame, size_t index, uint8_t value)
{
    if (PayloadHas(frame, index, 1))
        frame->bytes[kFramePayloadOffset + index] = value;
}

void SetPayloadLe16(CommandFrame* frame, size_t index, uint16_t value)
{
    if (PayloadHas(frame, index, 2))
        WriteLe16(frame->bytes + kFramePayloadOffset + index, value);
}

void SetPayloadFloat(CommandFrame* frame, size_t index, float value)
{
    static_assert(sizeof(float) == 4, "IEEE-754 single");
    uint32_t bits;
    memcpy(&bits, &value, sizeof bits);
    if (!PayloadHas(frame, index, 4))
        return;
    uint8_t* at = frame->bytes + kFramePayloadOffset + index;
    WriteLe16(at, static_cast<uint16_t>(bits));
    WriteLe16(at + 2, static_cast<uint16_t>(bits >> 16));
}

void SendCommandFrame(CommandFrame* frame)
{
    SendCameraPacket(frame->bytes, frame->length);
}

void SendTemplate(const CommandTemplate& image)
{
    CommandFrame frame = FrameFrom(image);
    SendCommandFrame(&frame);
}

void SendTemplateWithByte(const CommandTemplate& image, uint8_t payload_byte_0)
{
    CommandFrame frame = FrameFrom(image);
    SetPayloadByte(&frame, 0, payload_byte_0);
    SendCommandFrame(&frame);
}

void SendByteSetting(const ByteSetting& setting, const char* text)
{
    if (setting.log_format != nullptr)
        fprintf(stderr, setting.log_format, TextOrEmpty(text));
    int16_t code = SettingCodeOf(setting.codes, text);
    if (code != kSendNothing)
        SendTemplateWithByte(setting.image, static_cast<uint8_t>(code));
}
