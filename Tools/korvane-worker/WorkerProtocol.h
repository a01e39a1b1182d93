#pragma once

#include <QElapsedTimer>
#include <QString>

#include <cstdio>

namespace Korvane {

// The worker's side of the line protocol: one compact JSON object per line
// on standard output, flushed at once: {"state":1}, {"progress":0.42},
// {"state":5}, {"state":6,"error":"text"}, {"state":4}.
class WorkerProtocol
{
public:
    explicit WorkerProtocol(std::FILE* stream);

    void started();
    void finished();
    void failed(const QString& error);
    void stopped();
    // Writes the value only when 250 ms have passed since the last progress
    // line (the first one is always written); values are clamped to 0..1.
    void progress(double value);

private:
    void state(int value, const QString& error = QString());
    void line(const QByteArray& json);

    std::FILE* mStream;
    QElapsedTimer mSinceProgress;
};

} // namespace Korvane
