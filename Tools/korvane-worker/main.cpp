// korvane-worker: renders one conversion job or timeline project in its own
// process and reports on standard output (see WorkerProtocol). A line "stop"
// on standard input, the end of standard input, SIGTERM, SIGINT or the end
// of the host process ends the render (see WorkerStopWatch); the partial
// output is removed and the exit code is 1.
#include "korvane-worker/WorkerJob.h"
#include "korvane-worker/WorkerProtocol.h"
#include "korvane-worker/WorkerStopWatch.h"

#include "KorvaneBase/KorvaneBase.h"
#include "KvAVGlue/FFmpegLog.h"

#include <QCoreApplication>

#include <cstdio>
#include <thread>
#include <unistd.h>

int main(int argc, char** argv)
{
    // Read before anything else, so that a host that dies while the worker
    // starts up is still noticed.
    const qint64 parent = ::getppid();
    QCoreApplication app(argc, argv);
    const Korvane::WorkerArguments arguments =
        Korvane::parseWorkerArguments(app.arguments().mid(1));
    if (arguments.mode == Korvane::WorkerArguments::Mode::Invalid) {
        std::fputs(Korvane::workerUsage().toLocal8Bit().constData(), stderr);
        return 2;
    }
    Korvane::KorvaneBaseEntry();
    Korvane::ffmpegLogToPLog();

    // The render runs on its own thread so that this one's event loop can
    // take stop requests while it works.
    Korvane::WorkerStopWatch stopWatch(parent);
    Korvane::WorkerProtocol protocol(stdout);
    int exitCode = 1;
    std::thread render([&] {
        exitCode = Korvane::runWorkerJob(arguments, protocol, stopWatch.flag()) ? 0 : 1;
        QMetaObject::invokeMethod(&app, &QCoreApplication::quit, Qt::QueuedConnection);
    });
    app.exec();
    render.join();
    return exitCode;
}
