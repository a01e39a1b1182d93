// A stand-in for the worker program that plays the script named by
// KORVANE_SCRIPTED_WORKER. Every run n leaves in KORVANE_SCRIPTED_WORKER_DIR its
// arguments (run-<n>, one a line), a copy of each job file as found
// (run-<n>--option), and stopped-<n> when it received "stop".
#include <QDir>
#include <QFile>
#include <QHash>
#include <QThread>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include <sys/resource.h>

namespace {

// Lines go to standard output as they are; "|" splits one message into two
// pieces that reach the reader apart; the words in capitals are actions.
const QStringList kSuccess = QString("WORKING;{\"state\":1};this line is not a message;"
                                     "{\"progress\":0.25};{\"progr|ess\":0.5};"
                                     "{\"progress\":1.0};{\"state\":5}")
                                 .split(';');
const QStringList kCrash{"{\"state\":1}", "{\"progress\":0.3}", "ABORT"};
const QHash<QString, QStringList> kScripts{
    {"success", kSuccess},
    {"failure",
     {"{\"state\":1}", "{\"progress\":0.1}", "{\"state\":6,\"error\":\"scripted failure\"}",
      "EXIT1"}},
    {"crash", kCrash},
    {"crash-once", kCrash + kSuccess}, // the crash on the first run only
    {"quit", {"{\"state\":1}"}},       // ends without a result
    {"hang", {"{\"state\":1}", "STOP"}},
    {"deaf", {"{\"state\":1}", "SLEEP"}},        // ignores "stop"
    {"linger", kSuccess + QStringList{"SLEEP"}}, // never exits after its result
};

int play(const QString& name, const QString& command, const QDir& records, int run)
{
    QStringList script = kScripts.value(name, {"EXIT2"});
    if (name == "crash-once" &&
        !QFile(records.filePath("crashed")).open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
        script = kSuccess;
    }
    for (const QString& step : script) {
        if (step == "WORKING") {
            std::fprintf(stderr, "scripted worker: working on %s\n", qPrintable(command));
            std::fflush(stderr);
        } else if (step == "ABORT") {
            // No core file for an intended crash.
            const rlimit none{0, 0};
            setrlimit(RLIMIT_CORE, &none);
            std::abort();
        } else if (step.startsWith("EXIT")) {
            return step.mid(4).toInt();
        } else if (step == "SLEEP") {
            QThread::sleep(60);
        } else if (step == "STOP") {
            std::string line;
            while (std::getline(std::cin, line) && line != "stop") {
            }
            if (!std::cin) {
                return 3;
            }
            QFile(records.filePath(QStringLiteral("stopped-%1").arg(run)))
                .open(QIODevice::WriteOnly);
            std::puts("{\"state\":4}");
        } else {
            for (const QString& piece : step.split('|')) {
                std::fputs(qPrintable(piece), stdout);
                std::fflush(stdout);
                QThread::msleep(piece.size() < step.size() ? 100 : 20);
            }
            std::fputc('\n', stdout);
        }
        std::fflush(stdout);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i) {
        arguments << QString::fromLocal8Bit(argv[i]);
    }
    const QDir records(qEnvironmentVariable("KORVANE_SCRIPTED_WORKER_DIR"));
    int run = 1;
    while (records.exists(QStringLiteral("run-%1").arg(run))) {
        ++run;
    }
    for (int i = 1; i + 1 < arguments.size(); i += 2) {
        QFile::copy(arguments.at(i + 1),
                    records.filePath(QStringLiteral("run-%1%2").arg(run).arg(arguments.at(i))));
    }
    QFile record(records.filePath(QStringLiteral("run-%1").arg(run)));
    if (record.open(QIODevice::WriteOnly)) {
        record.write(arguments.join('\n').toUtf8());
        record.close();
    }
    return play(qEnvironmentVariable("KORVANE_SCRIPTED_WORKER"), arguments.value(0), records, run);
}
