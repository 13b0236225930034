#pragma once
#include <cstddef>

// The small files the service reads and writes.
constexpr const char* kBoardModelPath = "/sys/firmware/devicetree/base/model";
constexpr const char* kBoardSupportedPath = "/run/tarnwickrelay/board_supported";
constexpr const char* kApIfacePath = "/run/tarnwickrelay/ap.iface";

// Writes `text` (without its terminator) as the whole of `path`: into
// `path` + ".new" first, renamed over `path`, so that a reader sees the old
// file or the new one, never an empty or half-written one. Returns 0, or -1
// when it cannot be written (a missing directory, for one; nothing is left).
int WriteTextFile(const char* path, const char* text);
constexpr const char* kTemporarySuffix = ".new";
constexpr size_t kSmallFilePathCapacity = 256;

// Reads at most `capacity` - 1 bytes of `path` into a zeroed `buffer`. A
// missing file leaves it empty. Returns the number of bytes read.
size_t ReadSmallFile(const char* path, char* buffer, size_t capacity);
