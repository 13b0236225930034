#include "support/rc_writer.h"

bool RcWriter::Start(const std::string& name)
{
    return tool_.Start(ToolPath("rcwriter"), {"--name=" + name, "--press-ms=200", "-"});
}

bool RcWriter::Do(const std::string& line, int timeout_ms)
{
    tool_.WriteLine(line);
    ++lines_;
    return tool_.WaitForStdout("ok " + std::to_string(lines_) + "\n", timeout_ms);
}
