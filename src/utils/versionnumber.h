#pragma once

#include <QString>

#include <ostream>

class QDebug;

// A dotted version with an optional pre-release tag ("2.3.4-beta5", "1.2.3.7").
// Parsing never fails: parts that are not numbers read as 0.
class VersionNumber
{
public:
    enum PatchStatus {
        Unknown = -400,
        Alpha = -300,
        Beta = -200,
        ReleaseCandidate = -100,
        Release = 0,
    };

    VersionNumber() = default;
    VersionNumber(int major, int minor, int patch, int patchStatus = Release, quint32 patchStatusNumber = 0);

    static VersionNumber fromString(const QString& text);
    QString toString() const;
    QString toMajorMinorString() const;

    int major() const { return m_major; }
    int minor() const { return m_minor; }
    int patch() const { return m_patch; }
    int patchStatus() const { return m_patchStatus; }
    quint32 patchStatusNumber() const { return m_patchStatusNumber; }

    // Ordered by major, minor, patch, status, then number.
    int compare(const VersionNumber& other) const;
    bool operator==(const VersionNumber& other) const { return compare(other) == 0; }
    bool operator!=(const VersionNumber& other) const { return compare(other) != 0; }
    bool operator<(const VersionNumber& other) const { return compare(other) < 0; }

private:
    int m_major = 0;
    int m_minor = 0;
    int m_patch = 0;
    int m_patchStatus = Release;
    quint32 m_patchStatusNumber = 0;
};

QDebug operator<<(QDebug debug, const VersionNumber& version);
std::ostream& operator<<(std::ostream& stream, const VersionNumber& version);
