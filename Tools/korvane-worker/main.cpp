// korvane-worker: renders one conversion job or timeline project in its own
// process and reports on standard output (see WorkerProtocol). A line "stop"
// on standard input ends the render; the partial output is removed.
#include "WorkerJob.h"
#include "WorkerProtocol.h"

#include "KorvaneBase/KorvaneBase.h"
#include "KvAVGlue/FFmpegLog.h"

#include <QCoreApplication>

#include <atomic>
#include <cstdio>
#include <iostream>
#include <string>
#include <thread>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const Korvane::WorkerArguments arguments =
        Korvane::parseWorkerArguments(app.arguments().mid(1));
    if (arguments.mode == Korvane::WorkerArguments::Mode::Invalid) {
        std::fputs(Korvane::workerUsage().toLocal8Bit().constData(), stderr);
        return 2;
    }
    Korvane::KorvaneBaseEntry();
    Korvane::ffmpegLogToPLog();

    // The render runs on this thread; stdin is watched by a reader that only
    // raises the flag. It is left blocked in its read when the job ends.
    static std::atomic<bool> stop{false};
    std::thread reader([] {
        std::string line;
        while (std::getline(std::cin, line)) {
            if (line == "stop" || line == "stop\r") {
                stop = true;
                return;
            }
        }
    });
    reader.detach();

    Korvane::WorkerProtocol protocol(stdout);
    return Korvane::runWorkerJob(arguments, protocol, stop) ? 0 : 1;
}
