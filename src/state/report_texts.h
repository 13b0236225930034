#pragma once
#include <cstddef>
#include <cstdint>

// Code-to-text tables of reports that no command sets. The codes that the
// setting commands also send are read back through their rows in
// control/value_tables.h, so that each code is written down once.

struct ReportCodeText {
    uint8_t code;
    const char* text;
};

// The row's text for `code`, or `fallback`.
const char* LookupReportText(const ReportCodeText* rows, size_t count, uint8_t code, const char* fallback);

// Camera information report, model code: "DJI Pocket Osmo", "DJI Pocket 2";
// nullptr for any other code (the decoder then writes "Unknown camera (%d)").
const char* CameraModelText(uint8_t code);
// Playback report, state code: "playing", "paused", "stopped"; "" for others.
const char* PlaybackStateText(uint8_t code);
