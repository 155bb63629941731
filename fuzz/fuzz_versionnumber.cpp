// VersionNumber::fromString on any text: never fails, and what it prints reads back the same.
#include "fuzzsupport.h"
#include "utils/versionnumber.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), qsizetype(size));
    const VersionNumber version = VersionNumber::fromString(text);
    const QString printed = version.toString();
    const VersionNumber reread = VersionNumber::fromString(printed);
    FuzzSupport::check(reread == version, "a printed version does not read back as itself");
    FuzzSupport::check(reread.toString() == printed, "printing is not stable");
    (void)version.toMajorMinorString();
    return 0;
}
