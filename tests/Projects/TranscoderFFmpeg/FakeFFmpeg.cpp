// A stand-in for the ffmpeg program, built once per behaviour (FAKE_FFMPEG_MODE).
// Like the real one it takes the progress file from "-progress PATH" and the
// output from the last argument; it writes a small output file and the
// arguments it received (one per line, to OUTPUT.args), then plays its part:
// success (report with end marker, exit 0), noend (no end marker), fail (one
// block, exit 1), stderr (one block and an error line, then waits to be
// killed), errorexit0 (whole report, an error line, exit 0), hang, crash,
// blocked (a folder stands where the progress file belongs for a while) and
// torn (lines left half-written across several polls).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#ifdef __unix__
#include <sys/resource.h>
#endif

namespace {

const std::string kMode = FAKE_FFMPEG_MODE;

void pause(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// Appends one report block the way ffmpeg does: whole lines, flushed at once.
void writeBlock(const std::string& path, long long outTimeUs, bool last)
{
    std::ofstream progress(path, std::ios::app);
    progress << "frame=" << outTimeUs / 40000 << "\n"
             << "fps=25.00\n"
             << "bitrate=1000.0kbits/s\n"
             << "out_time_us=" << outTimeUs << "\n"
             << "out_time_ms=" << outTimeUs << "\n"
             << "speed=1.00x\n"
             << "progress=" << (last ? "end" : "continue") << "\n";
}

void writeReport(const std::string& path, bool withEnd)
{
    const long long steps[] = {500000, 1000000, 1500000, 2000000};
    for (long long t : steps) {
        writeBlock(path, t, withEnd && t == steps[3]);
        pause(100);
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string progressPath;
    for (size_t i = 0; i + 1 < args.size(); ++i) {
        if (args[i] == "-progress") {
            progressPath = args[i + 1];
        }
    }
    if (progressPath.empty() || args.empty()) {
        std::fputs("fake ffmpeg: no -progress or output\n", stderr);
        return 2;
    }
    const std::string output = args.back();
    {
        std::ofstream out(output, std::ios::binary);
        out << "fake output";
        std::ofstream list(output + ".args");
        for (const std::string& a : args) {
            list << a << "\n";
        }
    }

    if (kMode == "success" || kMode == "noend") {
        writeReport(progressPath, kMode == "success");
        return 0;
    }
    if (kMode == "errorexit0") {
        writeReport(progressPath, true);
        std::fputs("fake error after the end\n", stderr);
        return 0;
    }
    if (kMode == "blocked") {
        std::filesystem::create_directory(progressPath);
        pause(1200);
        std::filesystem::remove(progressPath);
        writeReport(progressPath, true);
        return 0;
    }
    writeBlock(progressPath, 500000, false);
    if (kMode == "torn") {
        std::ofstream progress(progressPath, std::ios::app);
        for (const char* piece : {"out_time_us=15", "00000\nprogress=e", "nd\n"}) {
            progress << piece << std::flush;
            pause(700);
        }
        return 0;
    }
    if (kMode == "fail") {
        return 1;
    }
    if (kMode == "crash") {
#ifdef __unix__
        // No core file for an intended crash.
        const rlimit none{0, 0};
        setrlimit(RLIMIT_CORE, &none);
#endif
        std::abort();
    }
    if (kMode == "stderr") {
        std::fputs("[h264 @ 0x1] fake error line\n", stderr);
        std::fflush(stderr);
    }
    pause(60000);
    return 0;
}
