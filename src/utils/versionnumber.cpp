#include "versionnumber.h"

#include <QDebug>
#include <QStringList>

#include <tuple>

VersionNumber::VersionNumber(int major, int minor, int patch, int patchStatus, quint32 patchStatusNumber)
    : m_major(major)
    , m_minor(minor)
    , m_patch(patch)
    , m_patchStatus(patchStatus)
    , m_patchStatusNumber(patchStatusNumber)
{ }

VersionNumber VersionNumber::fromString(const QString& text)
{
    static const struct
    {
        const char* separator;
        PatchStatus status;
    } tags[] = { { "-alpha", Alpha }, { "-beta", Beta }, { "-rc", ReleaseCandidate } };

    VersionNumber version;
    version.m_patchStatus = Release;
    QString numericPart = text;
    QString tagNumber;
    bool tagged = false;
    for (const auto& tag : tags) {
        const QStringList parts = text.split(QLatin1String(tag.separator));
        if (parts.size() >= 2) {
            version.m_patchStatus = tag.status;
            numericPart = parts.at(0);
            tagNumber = parts.at(1);
            tagged = true;
            break;
        }
    }

    const QStringList numbers = numericPart.split(QLatin1Char('.'));
    int components[4] = { 0, 0, 0, 0 };
    for (int i = 0; i < 4 && i < numbers.size(); ++i)
        components[i] = numbers.at(i).toInt(nullptr, 10); // 0 when not a number or out of range
    version.m_major = components[0];
    version.m_minor = components[1];
    version.m_patch = components[2];
    // A negative fourth component has no unsigned form; it reads as not a number.
    version.m_patchStatusNumber = tagged ? tagNumber.toUInt() : quint32(qMax(components[3], 0));
    return version;
}

QString VersionNumber::toString() const
{
    QString text = QStringLiteral("%1.%2.%3").arg(m_major).arg(m_minor).arg(m_patch);
    switch (m_patchStatus) {
    case ReleaseCandidate:
        text += QStringLiteral("-rc%1").arg(m_patchStatusNumber);
        break;
    case Beta:
        text += QStringLiteral("-beta%1").arg(m_patchStatusNumber);
        break;
    case Alpha:
        text += QStringLiteral("-alpha%1").arg(m_patchStatusNumber);
        break;
    case Release:
        if (m_patchStatusNumber != 0)
            text += QStringLiteral(".%1").arg(m_patchStatusNumber);
        break;
    case Unknown:
        qCritical() << "Unknown patch status.";
        text += QStringLiteral("-unknown");
        break;
    default:
        break;
    }
    return text;
}

QString VersionNumber::toMajorMinorString() const
{
    return QStringLiteral("%1.%2").arg(m_major).arg(m_minor);
}

int VersionNumber::compare(const VersionNumber& other) const
{
    const auto mine = std::make_tuple(m_major, m_minor, m_patch, m_patchStatus, m_patchStatusNumber);
    const auto theirs = std::make_tuple(other.m_major, other.m_minor, other.m_patch, other.m_patchStatus,
                                        other.m_patchStatusNumber);
    if (mine < theirs)
        return -1;
    return theirs < mine ? 1 : 0;
}

QDebug operator<<(QDebug debug, const VersionNumber& version)
{
    QDebugStateSaver saver(debug);
    debug.noquote() << version.toString();
    return debug;
}

std::ostream& operator<<(std::ostream& stream, const VersionNumber& version)
{
    return stream << version.toString().toStdString();
}
