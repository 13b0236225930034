#pragma once
// The camera's setting vocabularies: the texts that the main application
// sends, the remote control steps through and the status line shows, and the
// payload codes that the camera takes and reports back.
//
// Each row holds one value: its text, the code the setting command sends, and
// the text that the telemetry decoder writes when the camera reports that
// code. Commands and decoder read the same row, so a code is written down
// once. Text comparisons are exact and case-sensitive.
//
// Two kinds of table:
//  - ordered name tables (ExposureModeNames, ShutterNames, IsoNames, EvNames,
//    WhiteBalanceNames, ColorModeNames), walked by the step commands; each is
//    built from the text column of its code table, never written twice;
//  - code tables, with per table what a text in no row sends and what a code
//    in no row reads back as.
//
// Everything here is constant data, safe to read from any thread.
#include <array>
#include <cstddef>
#include <cstdint>

// ---------------------------------------------------------------------------
// Texts and look-ups shared by every table.

// Exact, case-sensitive equality of two texts; a null text equals nothing.
bool SameText(const char* a, const char* b);
// The text, or "" for null (for log lines).
const char* TextOrEmpty(const char* text);

// The first row from `begin` to `end` that `matches`, or null: the one walk
// every look-up of these tables goes through.
template <typename Row, typename Match>
constexpr const Row* FindRow(const Row* begin, const Row* end, Match matches)
{
    for (const Row* row = begin; row != end; ++row)
        if (matches(*row))
            return row;
    return nullptr;
}
template <typename Row, size_t N, typename Match>
constexpr const Row* FindRow(const Row (&rows)[N], Match matches)
{
    return FindRow(rows, rows + N, matches);
}

// ---------------------------------------------------------------------------
// Generic rows: one payload byte per value.

// Code for "a text in no row sends nothing".
constexpr int16_t kSendNothing = -1;

struct SettingCode {
    const char* text;       // text accepted by the setting command; null: the camera reports it, it cannot be set
    uint8_t code;           // payload byte
    const char* read_back;  // text the decoder writes for this code; null: this code is not read back
};

struct SettingTable {
    const SettingCode* rows;
    size_t count;
    int16_t code_other;           // code sent for a text in no row, or kSendNothing
    const char* read_back_other;  // decoder's text for a code in no row
};

template <size_t N>
constexpr SettingTable MakeSettingTable(const SettingCode (&rows)[N], int16_t code_other, const char* read_back_other)
{
    return {rows, N, code_other, read_back_other};
}

// The code to send for `text`: the row's code, else the table's code_other
// (kSendNothing: send nothing). A null text is in no row.
int16_t SettingCodeOf(const SettingTable& table, const char* text);
// The decoder's text for a reported code.
const char* SettingReadBack(const SettingTable& table, unsigned code);

// Builds an ordered name table from the text column of `Count` rows starting
// at row `First`.
template <size_t Count, size_t First = 0, typename Row, size_t N>
constexpr std::array<const char*, Count> NameColumn(const Row (&rows)[N])
{
    static_assert(First + Count <= N, "name table longer than its rows");
    std::array<const char*, Count> names{};
    for (size_t i = 0; i < Count; ++i)
        names[i] = rows[First + i].text;
    return names;
}

// ---------------------------------------------------------------------------
// Exposure program: payload code, 00. Any code but 2, 3, 4 reads back "auto".

inline constexpr SettingCode kExposureModeRows[] = {
    {"auto", 1, "auto"},
    {"shutter", 2, "shutter"},
    {"aperture", 3, "aperture"},
    {"manual", 4, "manual"},
};
inline constexpr SettingTable ExposureModeCodes = MakeSettingTable(kExposureModeRows, kSendNothing, "auto");
inline constexpr std::array<const char*, 4> ExposureModeNames = NameColumn<4>(kExposureModeRows);

// ---------------------------------------------------------------------------
// Shutter speed: payload 01, value (u16: whole number written in the text,
// bit 15 set for a 1/x text), decimal (the digits after the point). Texts in
// no row send value 0, decimal 0. The decoder reads the same three bytes back
// by formula, which gives every row its own text.

struct ShutterCode {
    const char* text;
    uint16_t value;
    uint8_t decimal;
};

constexpr uint16_t kShutterFractionFlag = 0x8000;

// A row from its text: "8\"", "3.2\"", "1/240", "1/1.25".
constexpr ShutterCode ShutterRow(const char* text)
{
    const char* p = text;
    bool fraction = p[0] == '1' && p[1] == '/';
    if (fraction)
        p += 2;
    unsigned whole = 0;
    while (*p >= '0' && *p <= '9')
        whole = whole * 10 + static_cast<unsigned>(*p++ - '0');
    unsigned decimal = 0;
    if (*p == '.')
        for (++p; *p >= '0' && *p <= '9'; ++p)
            decimal = decimal * 10 + static_cast<unsigned>(*p - '0');
    return {text, static_cast<uint16_t>(whole | (fraction ? kShutterFractionFlag : 0)),
            static_cast<uint8_t>(decimal)};
}

constexpr size_t kShutterSettableOnly = 6;  // "30\"" to "9\"": settable, never stepped to
inline constexpr ShutterCode ShutterValueTable[] = {
    ShutterRow("30\""), ShutterRow("25\""), ShutterRow("20\""), ShutterRow("15\""), ShutterRow("10\""),
    ShutterRow("9\""),
    // ShutterNames from here on.
    ShutterRow("8\""), ShutterRow("7\""), ShutterRow("6\""), ShutterRow("5\""), ShutterRow("4\""),
    ShutterRow("3.2\""), ShutterRow("3\""), ShutterRow("2.5\""), ShutterRow("2\""), ShutterRow("1.6\""),
    ShutterRow("1.3\""), ShutterRow("1\""), ShutterRow("1/1.25"), ShutterRow("1/1.67"), ShutterRow("1/2"),
    ShutterRow("1/2.5"), ShutterRow("1/3"), ShutterRow("1/4"), ShutterRow("1/5"), ShutterRow("1/6.25"),
    ShutterRow("1/8"), ShutterRow("1/10"), ShutterRow("1/12.5"), ShutterRow("1/15"), ShutterRow("1/20"),
    ShutterRow("1/25"), ShutterRow("1/30"), ShutterRow("1/40"), ShutterRow("1/50"), ShutterRow("1/60"),
    ShutterRow("1/80"), ShutterRow("1/100"), ShutterRow("1/120"), ShutterRow("1/160"), ShutterRow("1/200"),
    ShutterRow("1/240"), ShutterRow("1/320"), ShutterRow("1/400"), ShutterRow("1/500"), ShutterRow("1/640"),
    ShutterRow("1/800"), ShutterRow("1/1000"), ShutterRow("1/1250"), ShutterRow("1/1600"),
    ShutterRow("1/2000"), ShutterRow("1/2500"), ShutterRow("1/3200"), ShutterRow("1/4000"),
    ShutterRow("1/5000"), ShutterRow("1/6400"), ShutterRow("1/8000"),
};
constexpr size_t kShutterRowCount = sizeof ShutterValueTable / sizeof ShutterValueTable[0];
static_assert(kShutterRowCount == 57, "57 settable shutter texts");
inline constexpr std::array<const char*, 51> ShutterNames =
    NameColumn<51, kShutterSettableOnly>(ShutterValueTable);

// The row of `text`, or null (then value 0, decimal 0 is sent).
const ShutterCode* FindShutterCode(const char* text);

// ---------------------------------------------------------------------------
// ISO: the command converts its text to a whole number; a number in no row,
// 0 and junk included, sends 0. Codes in no row read back "auto".

struct IsoCode {
    int32_t iso;
    uint8_t code;
    const char* text;  // the setting text and the decoder's text
};

inline constexpr IsoCode IsoCodes[] = {
    {100, 3, "100"}, {200, 4, "200"}, {400, 5, "400"}, {800, 6, "800"},
    {1600, 7, "1600"}, {3200, 8, "3200"}, {6400, 9, "6400"},
};
constexpr uint8_t kIsoCodeOther = 0;
constexpr const char* kIsoReadBackOther = "auto";
// Step order: "0" (automatic ISO), then the rows up to 3200; 6400 is settable
// but not stepped to.
constexpr const char* kIsoAutoName = "0";
constexpr std::array<const char*, 7> BuildIsoNames()
{
    std::array<const char*, 7> names{};
    names[0] = kIsoAutoName;
    for (size_t i = 1; i < names.size(); ++i)
        names[i] = IsoCodes[i - 1].text;
    return names;
}
inline constexpr std::array<const char*, 7> IsoNames = BuildIsoNames();

uint8_t IsoCodeOf(long iso);
const char* IsoReadBack(unsigned code);

// ---------------------------------------------------------------------------
// Exposure compensation: the command converts its text to a double and
// compares it for equality with the values; no match sends nothing. Entry i
// has code i + 7 (0 is 16). Codes in no row read back "0".

struct EvCode {
    const char* text;  // step text and decoder's text
    double value;
    uint8_t code;
};

inline constexpr EvCode EvCodes[] = {
    {"-3.0", -3.0, 7}, {"-2.7", -2.7, 8}, {"-2.3", -2.3, 9}, {"-2.0", -2.0, 10}, {"-1.7", -1.7, 11},
    {"-1.3", -1.3, 12}, {"-1.0", -1.0, 13}, {"-0.7", -0.7, 14}, {"-0.3", -0.3, 15}, {"0", 0.0, 16},
    {"+0.3", 0.3, 17}, {"+0.7", 0.7, 18}, {"+1.0", 1.0, 19}, {"+1.3", 1.3, 20}, {"+1.7", 1.7, 21},
    {"+2.0", 2.0, 22}, {"+2.3", 2.3, 23}, {"+2.7", 2.7, 24}, {"+3.0", 3.0, 25},
};
constexpr const char* kEvReadBackOther = "0";
inline constexpr std::array<const char*, 19> EvNames = NameColumn<19>(EvCodes);

// The row whose value equals `value` exactly, or null (nothing is sent).
const EvCode* FindEvCode(double value);
const char* EvReadBack(unsigned code);

// ---------------------------------------------------------------------------
// White balance: payload mode code, second byte. "custom" sends mode 6 and a
// byte computed from the colour temperature; the camera reports custom as 3.
// Texts in no row send nothing; codes in no row read back "custom".

struct WhiteBalanceCode {
    const char* text;         // setting text and decoder's text
    uint8_t mode_code;        // sent
    uint8_t second_byte;      // sent; for custom, see WhiteBalanceTemperatureByte
    uint8_t read_back_code;   // reported
};

inline constexpr WhiteBalanceCode WhiteBalanceCodes[] = {
    {"auto", 0, 0x44, 0},
    {"sunny", 1, 0x30, 1},
    {"cloudy", 2, 0x40, 2},
    {"incandescent", 4, 0x44, 4},
    {"neon", 5, 0x19, 5},
    {"custom", 6, 0x00, 3},
};
constexpr size_t kWhiteBalanceCustomRow = 5;
constexpr const char* kWhiteBalanceReadBackOther = "custom";
inline constexpr std::array<const char*, 6> WhiteBalanceNames = NameColumn<6>(WhiteBalanceCodes);

// Temperatures of this many kelvin or fewer send nothing.
constexpr long kWhiteBalanceMinimumKelvin = 1900;
// The custom temperature byte: (K - 2000) / 100 + 20, truncated toward zero,
// low 8 bits; -1 for kWhiteBalanceMinimumKelvin or less.
int WhiteBalanceTemperatureByte(long kelvin);
// The decoder reads the camera's temperature byte as byte x 100 kelvin.
constexpr int kWhiteBalanceKelvinPerUnit = 100;

const WhiteBalanceCode* FindWhiteBalanceCode(const char* text);
const char* WhiteBalanceReadBack(unsigned code);

// ---------------------------------------------------------------------------
// Colour mode: "d-clike" sends 0x34, every other text 0x00. The camera
// reports further modes that cannot be set; codes in no row read back "none".

inline constexpr SettingCode kColorModeRows[] = {
    {"none", 0x00, "none"},
    {"d-clike", 0x34, "d-clike"},
    // Reported by the camera, not settable here.
    {nullptr, 1, "art"},
    {nullptr, 4, "black white"},
    {nullptr, 5, "vivid"},
    {nullptr, 6, "d-cinelike"},
    {nullptr, 7, "portrait"},
    {nullptr, 14, "beach"},
    {nullptr, 16, "dream"},
    {nullptr, 18, "classic"},
    {nullptr, 19, "nostalgia"},
    {nullptr, 23, "d-log"},
};
inline constexpr SettingTable ColorModeCodes = MakeSettingTable(kColorModeRows, 0x00, "none");
inline constexpr std::array<const char*, 2> ColorModeNames = NameColumn<2>(kColorModeRows);

// ---------------------------------------------------------------------------
// Video resolution and frame rate: payload resolution code, frame-rate code.
// The two are independent; a pair or rate in no row sends 0 (the command is
// still sent) and a code in no row reads back as the empty text.

struct VideoResolutionCode {
    uint16_t width;
    uint16_t height;
    uint8_t code;
    const char* text;  // decoder's text
};

inline constexpr VideoResolutionCode VideoResolutionCodes[] = {
    {1280, 720, 4, "1280x720"},   {1920, 1080, 10, "1920x1080"}, {3840, 2160, 16, "3840x2160"},
    {4096, 2160, 22, "4096x2160"}, {2704, 1520, 24, "2704x1520"}, {2720, 1530, 31, "2720x1530"},
    {4000, 3000, 48, "4000x3000"}, {2720, 2040, 52, "2720x2040"},
};

struct FrameRateCode {
    uint16_t fps;
    uint8_t code;
    const char* text;  // decoder's text; null: the decoder does not read this code back
};

inline constexpr FrameRateCode FrameRateCodes[] = {
    {24, 1, "24"}, {25, 2, "25"}, {30, 3, "30"}, {48, 4, "48"}, {50, 5, "50"}, {60, 6, "60"},
    {120, 7, "120"}, {240, 8, nullptr}, {100, 10, nullptr}, {200, 19, nullptr},
};
constexpr uint8_t kVideoCodeOther = 0;
constexpr const char* kVideoReadBackOther = "";

uint8_t VideoResolutionCodeOf(long width, long height);
uint8_t FrameRateCodeOf(long fps);
const char* VideoResolutionReadBack(unsigned code);
const char* FrameRateReadBack(unsigned code);

// The resolution words that the main application may send, "<w>x<h>@<fps>",
// in the order they are tested.
struct VideoResolutionWord {
    uint16_t width;
    uint16_t height;
    uint16_t fps;
};
inline constexpr VideoResolutionWord VideoResolutionWords[] = {
    {3840, 2160, 60}, {3840, 2160, 50}, {3840, 2160, 48}, {3840, 2160, 30}, {3840, 2160, 25}, {3840, 2160, 24},
    {2720, 1530, 60}, {2720, 1530, 50}, {2720, 1530, 48}, {2720, 1530, 30}, {2720, 1530, 25}, {2720, 1530, 24},
    {1920, 1080, 240}, {1920, 1080, 120}, {1920, 1080, 60}, {1920, 1080, 50}, {1920, 1080, 48},
    {1920, 1080, 30}, {1920, 1080, 25}, {1920, 1080, 24},
    {1280, 720, 60}, {1280, 720, 50}, {1280, 720, 48}, {1280, 720, 30}, {1280, 720, 25}, {1280, 720, 24},
};
static_assert(sizeof VideoResolutionWords / sizeof VideoResolutionWords[0] == 26, "26 resolution words");
// The row whose word equals `word` exactly, or null.
const VideoResolutionWord* FindVideoResolutionWord(const char* word);

// ---------------------------------------------------------------------------
// Photo aspect ratio and sensor resolution share one command: payload
// image-size code, ratio code. The ratio command sends size code 0; the
// sensor command sends ratio code 1.

inline constexpr SettingCode kAspectRatioRows[] = {
    {"4:3", 0, "4:3"},
    {"16:9", 1, "16:9"},
};
inline constexpr SettingTable AspectRatioCodes = MakeSettingTable(kAspectRatioRows, kSendNothing, "4:3");
constexpr uint8_t kAspectRatioSizeCode = 0;

struct SensorResolutionCode {
    const char* text;
    uint8_t size_code;   // sent and reported
    uint8_t megapixels;  // the decoder's `sensor` value for this code
};
inline constexpr SensorResolutionCode SensorResolutionCodes[] = {
    {"16", 4, 16},
    {"64", 5, 64},
};
constexpr uint8_t kSensorResolutionRatioCode = 1;
const SensorResolutionCode* FindSensorResolutionCode(const char* text);
// The megapixels of a reported size code, or 0 when the code is in no row
// (the decoder then leaves `sensor` unchanged).
uint8_t SensorResolutionReadBack(unsigned size_code);

// ---------------------------------------------------------------------------
// Single-byte settings.

// Photo file format ("shot mode").
inline constexpr SettingCode kShotModeRows[] = {
    {"raw", 0, "RAW"},
    {"jpg", 1, "JPG"},
    {"jpg+raw", 2, "JPG+RAW"},
};
inline constexpr SettingTable ShotModeCodes = MakeSettingTable(kShotModeRows, kSendNothing, "");

// Anti-flicker: a text in no row sends 0 ("auto").
inline constexpr SettingCode kAntiFlickerRows[] = {
    {"50", 1, "50 Hz"},
    {"60", 2, "60 Hz"},
};
inline constexpr SettingTable AntiFlickerCodes = MakeSettingTable(kAntiFlickerRows, 0, "auto");

// Video standard; the camera reports it in bit 0 of its byte.
inline constexpr SettingCode kVideoStandardRows[] = {
    {"PAL", 0, "PAL"},
    {"NTSC", 1, "NTSC"},
};
inline constexpr SettingTable VideoStandardCodes = MakeSettingTable(kVideoStandardRows, kSendNothing, "PAL");
constexpr uint8_t kVideoStandardReportMask = 0x01;

// Focus type; the camera's focus report uses codes of its own.
inline constexpr SettingCode kFocusTypeRows[] = {
    {"afs", 1, nullptr},
    {"afc", 2, nullptr},
    {nullptr, 0x84, "MF"},
    {nullptr, 0x85, "AFS"},
    {nullptr, 0x86, "AFC"},
};
inline constexpr SettingTable FocusTypeCodes = MakeSettingTable(kFocusTypeRows, kSendNothing, "");

// Camera mode; the remote control tells photo from video by these codes too.
constexpr uint8_t kCameraModePhoto = 0;
constexpr uint8_t kCameraModeVideo = 1;
constexpr uint8_t kCameraModePlayback = 7;
inline constexpr SettingCode kCameraModeRows[] = {
    {"photo", kCameraModePhoto, "photo"},
    {"video", kCameraModeVideo, "video"},
    {"playback", kCameraModePlayback, "playback"},
};
inline constexpr SettingTable CameraModeCodes = MakeSettingTable(kCameraModeRows, kSendNothing, "unknown");

// Gimbal follow speed: every text but "slow" sends the fast value.
inline constexpr SettingCode kGimbalFollowSpeedRows[] = {
    {"slow", 2, nullptr},
    {"fast", 0, nullptr},
};
inline constexpr SettingTable GimbalFollowSpeedCodes = MakeSettingTable(kGimbalFollowSpeedRows, 0, "");

// Histogram on/off.
inline constexpr SettingCode kHistogramRows[] = {
    {"1", 1, nullptr},
    {"0", 0, nullptr},
};
inline constexpr SettingTable HistogramCodes = MakeSettingTable(kHistogramRows, kSendNothing, "");

// Auto-exposure lock: every text but "lock" sends the unlocked value.
inline constexpr SettingCode kExposureLockRows[] = {
    {"lock", 1, nullptr},
    {"unlock", 0, nullptr},
};
inline constexpr SettingTable ExposureLockCodes = MakeSettingTable(kExposureLockRows, 0, "");

// ---------------------------------------------------------------------------
// Gimbal mode: two gimbal commands, one with the mode byte and one with the
// tilt-lock byte. Texts in no row send nothing.

struct GimbalModeCode {
    const char* text;
    uint8_t mode;
    uint8_t tilt_lock;
};
inline constexpr GimbalModeCode GimbalModeCodes[] = {
    {"tiltlocked", 2, 1},
    {"fpv", 1, 0},
    {"follow", 2, 0},
};
const GimbalModeCode* FindGimbalModeCode(const char* text);

// ---------------------------------------------------------------------------
// Ordered name tables: position of `text`, or -1 when no entry equals it
// (a null text equals none).
int NameIndex(const char* const* names, size_t count, const char* text);
template <size_t N>
int NameIndex(const std::array<const char*, N>& names, const char* text)
{
    return NameIndex(names.data(), N, text);
}
