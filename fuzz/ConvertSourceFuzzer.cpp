// Reading a job never crashes, and once a text has been through one read and
// write, further reads and writes change nothing. (The very first read may
// still add the five "extraParam" keys the reader always fills in, so the
// fixpoint is checked from the second write on.)
#include "Common/Records/JsonForms.h"

#include <QString>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace Korvane;
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), qsizetype(size));
    const QString once = convertSourceToJson(convertSourceFromJson(text));
    const QString twice = convertSourceToJson(convertSourceFromJson(once));
    const QString thrice = convertSourceToJson(convertSourceFromJson(twice));
    if (twice != thrice) {
        std::abort();
    }
    return 0;
}
