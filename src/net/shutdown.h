#pragma once
// The one way the service ends: every fatal condition, on whichever thread it
// is found, calls ServiceExit with its exit code (1 usage, destination not
// set, a link that failed to start or a lost camera; 2 frame buffers not
// created or no camera data; 3 a failed receive). The first call decides the
// code and ends the process with exit(); a second fatal condition found
// meanwhile on another thread waits for that end instead of racing it with a
// code of its own.
[[noreturn]] void ServiceExit(int code);
