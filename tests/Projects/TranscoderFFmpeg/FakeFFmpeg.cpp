// A stand-in for ffmpeg, built once per behaviour (FAKE_FFMPEG_MODE): it writes
// its progress to "-progress PATH" and a small file to the last argument, then
// plays its part: success, noend (no end marker), fail, stderr (an error line,
// then waits to be killed), errorexit0 (an error line, exit 0), hang, crash,
// blocked (a folder holds the progress file's place a while), torn (lines
// left half-written across several polls).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>

namespace {

const std::string kMode = FAKE_FFMPEG_MODE;

void pause(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// Appends one report block the way ffmpeg does: whole lines, flushed at once.
void writeBlock(const std::string& path, long long outTimeUs, bool last)
{
    std::ofstream(path, std::ios::app) << "frame=" << outTimeUs / 40000 << "\nfps=25.00\n"
                                       << "out_time_us=" << outTimeUs << "\nspeed=1.00x\n"
                                       << "progress=" << (last ? "end" : "continue") << "\n";
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> args(argv + 1, argv + argc);
    std::string progress;
    for (size_t i = 0; i + 1 < args.size(); ++i) {
        progress = args[i] == "-progress" ? args[i + 1] : progress;
    }
    std::ofstream(args.back(), std::ios::binary) << "fake output";

    if (kMode == "blocked") {
        std::filesystem::create_directory(progress);
        pause(1200);
        std::filesystem::remove(progress);
    }
    if (kMode == "success" || kMode == "noend" || kMode == "errorexit0" || kMode == "blocked") {
        for (long long t = 500000; t <= 2000000; t += 500000) {
            writeBlock(progress, t, kMode != "noend" && t == 2000000);
            pause(100);
        }
        if (kMode == "errorexit0") {
            std::fputs("fake error after the end\n", stderr);
        }
        return 0;
    }
    writeBlock(progress, 500000, false);
    if (kMode == "torn") {
        std::ofstream out(progress, std::ios::app);
        for (const char* piece : {"out_time_us=15", "00000\nprogress=e", "nd\n"}) {
            out << piece << std::flush;
            pause(700);
        }
        return 0;
    }
    if (kMode == "fail") {
        return 1;
    }
    if (kMode == "crash") {
        // No core file for an intended crash.
        const rlimit none{0, 0};
        setrlimit(RLIMIT_CORE, &none);
        std::abort();
    }
    if (kMode == "stderr") {
        std::fputs("[h264 @ 0x1] fake error line\n", stderr);
        std::fflush(stderr);
    }
    pause(60000);
    return 0;
}
