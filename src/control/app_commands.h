#pragma once
// Commands from the main application, received on command_endpoint.
//
//  - "!" followed by one JSON object: a command ("cmd", "param", "value" ..
//    "value4", all JSON strings) turned into a camera or gimbal command;
//  - 05 01 followed by a signed 16-bit little-endian zoom rate.
// Everything else is dropped without a word.
//
// Malformed input: a text that does not parse as JSON is logged as
// "Malformed JSON command from app: <text>" and makes no call; JSON that is
// no object has no members. A member that is missing or not a JSON string is
// absent: it matches no word, and a command that would compare, convert or
// pass it on makes no call; the one exception is the colour temperature of
// "wb", which the white-balance command takes as optional (presets need none,
// "custom" without one sends nothing). Later datagrams are served as usual.
#include <atomic>
#include <cstddef>
#include <cstdint>

// command_endpoint's receive buffer: the longest command datagram is one
// byte less (a zero byte always follows it).
constexpr uint16_t kAppCommandBufferSize = 10000;

// The parse of one JSON command lives in a fixed arena, emptied before each
// command: nothing is allocated per command. cJSON's densest case is a new
// value every 2 bytes of text ("[0,0,..."), each a 64-byte item (40 on 32-bit
// boards) and, for a number, a 16-byte copy of its text: 40 bytes per byte of
// text. 48 leave room; a parse that would need more fails like malformed JSON.
constexpr size_t kJsonArenaBytesPerTextByte = 48;
constexpr size_t kJsonParseArenaSize = kAppCommandBufferSize * kJsonArenaBytesPerTextByte;

// How the remote control's gimbal axes are applied: -1 not yet chosen,
// 0 relative (speed), 1 absolute (angle). Written by the command thread,
// read by the remote-control thread once per cycle: an atomic, so each read
// sees a whole value (no ordering with other data is needed).
constexpr int32_t kMovementUnset = -1;
constexpr int32_t kMovementRelative = 0;
constexpr int32_t kMovementAbsolute = 1;
extern std::atomic<int32_t> MovementMode;

// Digital-zoom step in hundredths, added on every remote-control cycle while
// non-zero. Written by the command thread and the remote-control thread, read
// by the remote-control thread: an atomic.
extern std::atomic<int32_t> ZoomRate;

// command_endpoint's on_receive: one command datagram from the main
// application. Only that one thread may run it (the parse arena is its own). `buffer` holds the datagram from byte 0 and is zero-filled
// after it (command_endpoint clears its buffer before each receive), so the
// JSON text ends at the first zero byte.
void HandleAppDatagram(uint8_t* buffer, uint16_t length, const char* peer_ip, uint16_t peer_port);

// No movement mode chosen, no zoom rate: as at start.
void ResetAppCommands();
