// Small files written whole: a reader that reads while the file is rewritten sees the old text or the new one,
// never an empty or a half-written file; nothing is left beside it; a missing directory is a quiet failure.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

#include "net/files.h"

namespace {

TEST(SmallFiles, ReadersNeverSeeAHalfWrittenFile)
{
    char folder[] = "/tmp/tarnwick-files-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string path = std::string(folder) + "/video_width";
    ASSERT_EQ(WriteTextFile(path.c_str(), "1920"), 0);

    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 3000; ++i)
            WriteTextFile(path.c_str(), i % 2 ? "1920" : "640");
        done = true;
    });
    int torn = 0, reads = 0;
    while (!done) {
        char text[16];
        ReadSmallFile(path.c_str(), text, sizeof text);
        std::string seen(text);
        torn += seen != "1920" && seen != "640";
        ++reads;
    }
    writer.join();
    EXPECT_EQ(torn, 0) << "of " << reads << " reads";

    DIR* directory = opendir(folder);
    int entries = 0;
    for (dirent* entry; (entry = readdir(directory)) != nullptr;)
        entries += entry->d_name[0] != '.';
    closedir(directory);
    EXPECT_EQ(entries, 1) << "only the file itself";

    EXPECT_EQ(WriteTextFile((std::string(folder) + "/missing/video_height").c_str(), "1080"), -1);
    unlink(path.c_str());
    rmdir(folder);
}

}  // namespace
