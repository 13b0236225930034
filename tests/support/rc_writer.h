#pragma once
// The remote-control reader process played by the real writer tool
// (tarnwick-rcwriter) in its standard-input mode: each line of commands is
// carried out before the tool answers it, so a test knows that the shared
// record "/shared_rc_raw" holds what it wrote once Do returns.
#include <string>

#include "support/child_process.h"

class RcWriter {
public:
    // Starts the tool; it maps the record, creating it when missing. A
    // "press" lasts 200 ms: enough once a movement mode is chosen (20 ms
    // cycles), too short for the 1 s cycle before.
    bool Start(const std::string& name = "/shared_rc_raw");
    // One line of writer commands ("hold record 1", "stick 0.2 0 0", "ev off",
    // ...); true once the tool has answered it "ok".
    bool Do(const std::string& line, int timeout_ms = 5000);
    ChildProcess& process() { return tool_; }

private:
    ChildProcess tool_;
    unsigned lines_ = 0;
};
