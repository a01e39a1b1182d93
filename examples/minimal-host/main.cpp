// The smallest host of the conversion plug-in: it asks the support check,
// creates the converter through an exported factory, runs one job on the Qt
// event loop and prints the state and progress the task's signal bus reports.
//
//   minimal-host INPUT OUTPUT.mp4 WIDTH HEIGHT [AUDIO_STREAM_INDEX]
//
// Exit codes: 0 finished, 1 failed or stopped, 2 usage, 3 the ffmpeg path
// does not take the job (a real host would hand it to its own converters).
#include <Common/Task/IAVTask.h>
#include <Common/Task/TaskSignalBus.h>
#include <TranscoderFFmpeg/TranscoderFFmpeg.h>

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 5) {
        std::fprintf(stderr, "usage: minimal-host INPUT OUTPUT.mp4 WIDTH HEIGHT [AUDIO_STREAM]\n");
        return 2;
    }

    Korvane::ConvertSource source;
    source.filePath = args.at(1);
    // The ffmpeg path keeps at most one audio stream and must be told which.
    if (args.size() > 5) {
        source.selfAudios = {args.at(5).toInt()};
    }
    Korvane::AVTaskOutputParam output;
    output.outputPath = args.at(2);
    output.format = QStringLiteral("mp4");
    output.video.codecName = QStringLiteral("h264");
    output.video.width = args.at(3).toInt();
    output.video.height = args.at(4).toInt();
    output.audio.codecName = QStringLiteral("aac");

    if (!Korvane::isConverterSourceSupportedByTranscoderFFmpeg(source, output)) {
        std::printf("not supported by the ffmpeg path\n");
        return 3;
    }
    QSharedPointer<Korvane::IAVTaskOperator> op =
        Korvane::rawCreateNvidiaFFmpegConverter(source, output);
    if (op.isNull()) {
        return 1;
    }

    // Signals arrive on this thread, from the controller the factory made.
    int exitCode = 1;
    const QSharedPointer<Korvane::TaskSignalBus> bus = op->task()->signalBus();
    QObject::connect(bus.data(), &Korvane::TaskSignalBus::taskProgress,
                     [](Korvane::TaskProgressType, double progress) {
                         std::printf("progress %.3f\n", progress);
                     });
    QObject::connect(bus.data(), &Korvane::TaskSignalBus::taskStateChanged,
                     [&](Korvane::TaskState state, int errorCode) {
                         std::printf("state %d (error %d)\n", static_cast<int>(state), errorCode);
                         if (state == Korvane::TaskState::Finished) {
                             exitCode = 0;
                             app.quit();
                         } else if (state == Korvane::TaskState::Stopped ||
                                    state >= Korvane::TaskState::Failed) {
                             app.quit();
                         }
                     });
    if (!op->start()) {
        return 1;
    }
    app.exec();
    std::fflush(stdout);

    // The controller and its operator are released on the event loop.
    op.reset();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return exitCode;
}
