#pragma once

// The service's start-up and idle loop; never returns (ends through exit).
[[noreturn]] void RunService(int argc, char** argv);

// Attaches every function pointer through which a lower layer reaches one
// above it (the decoder's tracking restart, ...). RunService calls it before
// any link starts; harnesses that run the layers without RunService call it
// too.
void AttachLayers();
