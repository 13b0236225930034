#include "state/report_texts.h"

namespace {

constexpr ReportCodeText kCameraModels[] = {{24, "DJI Pocket Osmo"}, {47, "DJI Pocket 2"}};
constexpr ReportCodeText kPlaybackStates[] = {{2, "playing"}, {3, "paused"}, {7, "stopped"}};

template <size_t N>
const char* Lookup(const ReportCodeText (&rows)[N], uint8_t code, const char* fallback)
{
    return LookupReportText(rows, N, code, fallback);
}

}  // namespace

const char* LookupReportText(const ReportCodeText* rows, size_t count, uint8_t code, const char* fallback)
{
    for (size_t i = 0; i < count; ++i)
        if (rows[i].code == code)
            return rows[i].text;
    return fallback;
}

const char* CameraModelText(uint8_t code)
{
    return Lookup(kCameraModels, code, nullptr);
}

const char* PlaybackStateText(uint8_t code)
{
    return Lookup(kPlaybackStates, code, "");
}
