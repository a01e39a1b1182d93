#pragma once

#include "KorvaneBase/KorvaneBaseExport.h"

#include <QString>

class QObject;

namespace Korvane {

// A persistent log record under construction. Text is streamed in with <<;
// the record is handed to KorvaneBaseEntry()->logger() when it is destroyed
// (usually at the end of the statement that made it), or earlier by flush(),
// after which destruction hands over nothing more.
//
//   Korvane::Record("Korvane::FFDemuxer::open", __LINE__, "KorvaneDec/FFDemuxer", this, 0)
//       << "---demux--- avformat_open_input: " << ret;
class KORVANEBASE_EXPORT Record
{
public:
    Record(const QString& function, int line, const QString& file, const QObject* object,
           int level);
    ~Record();
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;

    Record& operator<<(const QString& text);
    Record& operator<<(const char* text);
    Record& operator<<(int value);
    Record& operator<<(unsigned int value);
    Record& operator<<(long value);
    Record& operator<<(unsigned long value);
    Record& operator<<(long long value);
    Record& operator<<(unsigned long long value);
    Record& operator<<(double value);

    QString text() const { return mText; }
    void flush();

private:
    QString mFunction;
    int mLine;
    QString mFile;
    const QObject* mObject;
    int mLevel;
    QString mText;
    bool mFlushed = false;
};

} // namespace Korvane
