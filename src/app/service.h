#pragma once

// The service's start-up and idle loop; never returns (ends through exit).
[[noreturn]] void RunService(int argc, char** argv);
