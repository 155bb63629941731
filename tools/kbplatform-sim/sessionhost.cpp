#include "sessionhost.h"

#include <array>
#include <utility>

namespace {

using Mode = SessionHost::CloudFault::Mode;

const std::array<std::pair<Mode, const char*>, 6> MODE_NAMES { {
    { Mode::None, "none" },
    { Mode::ReadThrottle, "read-throttle" },
    { Mode::Stall, "stall" },
    { Mode::OversizedFrame, "oversized-frame" },
    { Mode::EndlessFragments, "endless-fragments" },
    { Mode::Garbage, "garbage" },
} };

} // namespace

SessionHost::~SessionHost() = default;

QString SessionHost::CloudFault::modeName() const
{
    for (const auto& [value, name] : MODE_NAMES) {
        if (value == mode)
            return QLatin1String(name);
    }
    return QString();
}

std::optional<SessionHost::CloudFault::Mode> SessionHost::CloudFault::modeFromName(const QString& name)
{
    for (const auto& [value, text] : MODE_NAMES) {
        if (name == QLatin1String(text))
            return value;
    }
    return std::nullopt;
}
