#pragma once
// The outgoing command vocabulary: one constant frame image per camera or
// gimbal command. A command copies its image, overwrites the payload bytes
// that carry its arguments and hands the copy to SendCameraPacket, which fills
// in the sequence number and the CRC16 (zero placeholders here).
//
// Image: 55, length, 04, header CRC8, sender, receiver, sequence (2), command
// type, command set, command id, payload, CRC16 (2). The header bytes depend
// only on the length (kCommandFrameHeaders). Unless a template says otherwise
// the sender is 02, the type 40, and the receiver 01 for camera commands
// (sets 00 and 02) and 04 for gimbal commands (set 04).
#include <cstddef>
#include <cstdint>
#include <initializer_list>

#include "camera/frame.h"
#include "camera/value_tables.h"
#include "state/report_layout.h"  // kGimbalCommandSet: the gimbal's command set, both ways

constexpr size_t kCommandTemplateCapacity = 40;  // the longest command frame

struct CommandTemplate {
    uint8_t length;
    uint8_t image[kCommandTemplateCapacity];
};

constexpr uint8_t kCommandSender = 0x02;
constexpr uint8_t kCommandSenderAlternate = 0x09;
constexpr uint8_t kCommandTypeRequest = 0x40;
constexpr uint8_t kCommandTypeGimbalCalibration = 0x20;
constexpr uint8_t kCameraReceiver = 0x01;
constexpr uint8_t kGimbalReceiver = 0x04;

// Header CRC8 byte (byte 3) of a command frame of each length sent.
struct FrameHeaderCheck {
    uint8_t length;
    uint8_t header_crc;
};
inline constexpr FrameHeaderCheck kCommandFrameHeaders[] = {
    {13, 0x33}, {14, 0x66}, {15, 0xA2}, {17, 0x92}, {18, 0xC7},
    {20, 0x6D}, {21, 0xA9}, {23, 0x38}, {34, 0xEA}, {40, 0x0D},
};

// Not constexpr on purpose: a template that breaks a rule fails to compile.
void CommandTemplateLengthWithoutHeader();
void CommandTemplatePayloadTooLong();

// A frame image of `length` bytes: payload bytes given, the rest zero.
constexpr CommandTemplate MakeCommandTemplate(uint8_t length, uint8_t command_set, uint8_t command_id,
                                              std::initializer_list<uint8_t> payload = {},
                                              uint8_t sender = kCommandSender,
                                              uint8_t command_type = kCommandTypeRequest)
{
    CommandTemplate frame{};
    frame.length = length;
    int header_crc = -1;
    for (const FrameHeaderCheck& row : kCommandFrameHeaders)
        if (row.length == length)
            header_crc = row.header_crc;
    if (header_crc < 0 || length > kCommandTemplateCapacity)
        CommandTemplateLengthWithoutHeader();
    if (payload.size() > length - kFrameMinimumSize)
        CommandTemplatePayloadTooLong();
    frame.image[0] = kFrameStartByte;
    frame.image[kFrameLengthOffset] = length;
    frame.image[kFrameVersionOffset] = kFrameVersion;
    frame.image[kFrameHeaderCrcOffset] = static_cast<uint8_t>(header_crc);
    frame.image[kFrameSenderOffset] = sender;
    frame.image[kFrameReceiverOffset] = command_set == kGimbalCommandSet ? kGimbalReceiver : kCameraReceiver;
    frame.image[kFrameCommandTypeOffset] = command_type;
    frame.image[kFrameCommandSetOffset] = command_set;
    frame.image[kFrameCommandIdOffset] = command_id;
    size_t at = kFramePayloadOffset;
    for (uint8_t byte : payload)
        frame.image[at++] = byte;
    return frame;
}

// Capture and mode.
inline constexpr CommandTemplate kRecordTemplate = MakeCommandTemplate(14, 0x02, 0x02, {0x01});
inline constexpr CommandTemplate kShotTemplate = MakeCommandTemplate(14, 0x02, 0x01, {0x01});
inline constexpr CommandTemplate kSetModeTemplate =
    MakeCommandTemplate(14, 0x02, 0x10, {0x00}, kCommandSenderAlternate);
inline constexpr CommandTemplate kSetPlaybackModeTemplate = MakeCommandTemplate(14, 0x02, 0x10, {0x07});
inline constexpr CommandTemplate kPlaybackStartTemplate = MakeCommandTemplate(
    40, 0x00, 0x26, {0x4A, 0x00, 0x1B, 0x10, 0x13, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00,
                     0x64, 0x00, 0x0D, 0x01, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});

// Focus and metering.
inline constexpr CommandTemplate kFocusTypeTemplate = MakeCommandTemplate(14, 0x02, 0x24, {0x02});
inline constexpr CommandTemplate kFocusPointTemplate = MakeCommandTemplate(21, 0x02, 0x30);  // x, y: f32
inline constexpr CommandTemplate kExposureLockTemplate = MakeCommandTemplate(14, 0x02, 0x68);
inline constexpr CommandTemplate kExposurePointTemplate = MakeCommandTemplate(14, 0x02, 0x32);
inline constexpr CommandTemplate kExposureCenterTemplate = MakeCommandTemplate(14, 0x02, 0x22, {0x00});

// Gimbal.
inline constexpr CommandTemplate kGimbalSpeedTemplate =  // a, c, b: i16; then 90
    MakeCommandTemplate(20, 0x04, 0x0C, {0, 0, 0, 0, 0, 0, 0x90});
inline constexpr CommandTemplate kGimbalAngleTemplate =  // a, c, b: i16; then 64 00 E0 04
    MakeCommandTemplate(23, 0x04, 0x0A, {0, 0, 0, 0, 0, 0, 0x64, 0x00, 0xE0, 0x04});
constexpr uint8_t kGimbalPositionCenter = 0x08;
constexpr uint8_t kGimbalPositionNext = 0x09;
inline constexpr CommandTemplate kGimbalPositionTemplate =
    MakeCommandTemplate(15, 0x04, 0x4C, {0xFE, kGimbalPositionCenter});
inline constexpr CommandTemplate kGimbalModeTemplate = MakeCommandTemplate(15, 0x04, 0x4C, {0x00, 0x00});
inline constexpr CommandTemplate kGimbalTiltLockTemplate =
    MakeCommandTemplate(17, 0x04, 0x50, {0x00, 0x04, 0x01, 0x00});
inline constexpr CommandTemplate kGimbalFollowSpeedTemplate =
    MakeCommandTemplate(17, 0x04, 0x50, {0x00, 0x05, 0x01, 0x00});
inline constexpr CommandTemplate kGimbalCalibrateFirstTemplate = MakeCommandTemplate(14, 0x04, 0x07, {0x00});
inline constexpr CommandTemplate kGimbalCalibrateSecondTemplate =
    MakeCommandTemplate(21, 0x04, 0x01, {0x00, 0x04, 0x00, 0x04, 0x00, 0x04, 0x80, 0x00},
                        kCommandSenderAlternate, kCommandTypeGimbalCalibration);
inline constexpr CommandTemplate kGimbalCalibrateThirdTemplate = MakeCommandTemplate(13, 0x04, 0x08);

// Tracking and zoom.
inline constexpr CommandTemplate kTrackingStopTemplate = MakeCommandTemplate(34, 0x02, 0xA6);
inline constexpr CommandTemplate kTrackingStartTemplate =  // then x, y, w, h: f32
    MakeCommandTemplate(34, 0x02, 0xA6, {0x01, 0x00, 0x00, 0x0E, 0x00});
constexpr size_t kTrackingBoxPayloadOffset = 5;
inline constexpr CommandTemplate kDigitalZoomTemplate =  // then zoom - 100: u16
    MakeCommandTemplate(18, 0x02, 0x34, {0x09, 0x00, 0x00});
constexpr size_t kDigitalZoomPayloadOffset = 3;

// Card, reset, histogram.
inline constexpr CommandTemplate kFormatSdTemplate = MakeCommandTemplate(13, 0x02, 0x72);
inline constexpr CommandTemplate kResetTemplate = MakeCommandTemplate(14, 0x02, 0x78, {0x00});
inline constexpr CommandTemplate kHistogramTemplate = MakeCommandTemplate(14, 0x02, 0x60, {0x01});

// Settings.
inline constexpr CommandTemplate kExposureModeTemplate = MakeCommandTemplate(15, 0x02, 0x1E, {0x01, 0x00});
inline constexpr CommandTemplate kShutterTemplate =  // 01, value: u16, decimal
    MakeCommandTemplate(17, 0x02, 0x28, {0x01, 0x00, 0x00, 0x00});
inline constexpr CommandTemplate kApertureTemplate = MakeCommandTemplate(15, 0x02, 0x26);  // f x 100: u16
inline constexpr CommandTemplate kIsoTemplate = MakeCommandTemplate(14, 0x02, 0x2A);
inline constexpr CommandTemplate kEvTemplate = MakeCommandTemplate(14, 0x02, 0x2E);
inline constexpr CommandTemplate kWhiteBalanceTemplate = MakeCommandTemplate(15, 0x02, 0x2C);
inline constexpr CommandTemplate kColorTemplate = MakeCommandTemplate(14, 0x02, 0x42);
inline constexpr CommandTemplate kVideoResolutionTemplate =  // resolution, frame rate, 00 00 00
    MakeCommandTemplate(18, 0x02, 0x18);
inline constexpr CommandTemplate kVideoResolutionConfirmTemplate =  // resolution, frame rate
    MakeCommandTemplate(15, 0x02, 0xAF);
inline constexpr CommandTemplate kPhotoFormatTemplate = MakeCommandTemplate(15, 0x02, 0x12);  // size, ratio
inline constexpr CommandTemplate kShotModeTemplate = MakeCommandTemplate(14, 0x02, 0x16);
inline constexpr CommandTemplate kAntiFlickerTemplate = MakeCommandTemplate(14, 0x02, 0x46);
inline constexpr CommandTemplate kVideoStandardTemplate = MakeCommandTemplate(14, 0x02, 0x66);

// Every template, for the checks of the tests.
inline constexpr const CommandTemplate* kAllCommandTemplates[] = {
    &kRecordTemplate, &kShotTemplate, &kSetModeTemplate, &kSetPlaybackModeTemplate, &kPlaybackStartTemplate,
    &kFocusTypeTemplate, &kFocusPointTemplate, &kExposureLockTemplate, &kExposurePointTemplate,
    &kExposureCenterTemplate, &kGimbalSpeedTemplate, &kGimbalAngleTemplate, &kGimbalPositionTemplate,
    &kGimbalModeTemplate, &kGimbalTiltLockTemplate, &kGimbalFollowSpeedTemplate,
    &kGimbalCalibrateFirstTemplate, &kGimbalCalibrateSecondTemplate, &kGimbalCalibrateThirdTemplate,
    &kTrackingStopTemplate, &kTrackingStartTemplate, &kDigitalZoomTemplate, &kFormatSdTemplate,
    &kResetTemplate, &kHistogramTemplate, &kExposureModeTemplate, &kShutterTemplate, &kApertureTemplate,
    &kIsoTemplate, &kEvTemplate, &kWhiteBalanceTemplate, &kColorTemplate, &kVideoResolutionTemplate,
    &kVideoResolutionConfirmTemplate, &kPhotoFormatTemplate, &kShotModeTemplate, &kAntiFlickerTemplate,
    &kVideoStandardTemplate,
};

// A command on its way out: a copy of a template with payload bytes written.
// Lives on the sender's stack; writes outside the payload are ignored.
struct CommandFrame {
    uint8_t length;
    uint8_t bytes[kCommandTemplateCapacity];
};

CommandFrame FrameFrom(const CommandTemplate& image);
void SetPayloadByte(CommandFrame* frame, size_t index, uint8_t value);
void SetPayloadLe16(CommandFrame* frame, size_t index, uint16_t value);
void SetPayloadFloat(CommandFrame* frame, size_t index, float value);
// Through SendCameraPacket.
void SendCommandFrame(CommandFrame* frame);
// A template sent with its payload as it stands, or with byte 0 replaced.
void SendTemplate(const CommandTemplate& image);
void SendTemplateWithByte(const CommandTemplate& image, uint8_t payload_byte_0);

// Setting commands whose payload is one byte from a value table, one row
// each: the log line (with the text, "" for null; null: no line), the frame
// template, the table. A text in no row sends the table's code_other, or
// nothing.
struct ByteSetting {
    const char* log_format;
    const CommandTemplate& image;
    const SettingTable& codes;
};
inline constexpr ByteSetting kExposureModeSetting = {"Camera set image mode %s\n", kExposureModeTemplate,
                                                     ExposureModeCodes};
inline constexpr ByteSetting kColorSetting = {"Set color %s\n", kColorTemplate, ColorModeCodes};
inline constexpr ByteSetting kShotModeSetting = {"Camera set shot mode %s\n", kShotModeTemplate, ShotModeCodes};
inline constexpr ByteSetting kAntiFlickerSetting = {"Camera set anti-flicker %s\n", kAntiFlickerTemplate,
                                                    AntiFlickerCodes};
inline constexpr ByteSetting kVideoStandardSetting = {"Camera set video standard %s\n", kVideoStandardTemplate,
                                                      VideoStandardCodes};
inline constexpr ByteSetting kFocusTypeSetting = {"Camera set focus type %s\n", kFocusTypeTemplate, FocusTypeCodes};
inline constexpr ByteSetting kHistogramSetting = {nullptr, kHistogramTemplate, HistogramCodes};
void SendByteSetting(const ByteSetting& setting, const char* text);

// The playback frames, complete as stored (header check byte included); only
// the sequence number and CRC16 are written on the way out.
inline constexpr uint8_t kPlaybackPlayFrame[21] = {0x55, 0x15, 0x04, 0xa9, 0x02, 0x01, 0x0d, 0x85, 0x40, 0x02, 0x7b,
                                                  0x4a, 0x00, 0x64, 0x00, 0x00, 0x00, 0x00, 0x00, 0x12, 0x0d};
inline constexpr uint8_t kPlaybackPauseFrame[18] = {0x55, 0x12, 0x04, 0xc7, 0x02, 0x01, 0xe0, 0x85, 0x40,
                                                   0x02, 0x7a, 0x05, 0x00, 0x00, 0x00, 0x00, 0xf1, 0x0d};
inline constexpr uint8_t kPlaybackResumeFrame[18] = {0x55, 0x12, 0x04, 0xc7, 0x02, 0x01, 0x91, 0x89, 0x40,
                                                    0x02, 0x7a, 0x01, 0x00, 0x00, 0x00, 0x00, 0x75, 0x63};
