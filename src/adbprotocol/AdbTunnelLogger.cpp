#include "AdbTunnelLogger.h"

#include "AdbPacket.h"

Q_LOGGING_CATEGORY(tunnelCategory, "tunnel")

const char* const AdbTunnelLogger::ENV_KB_ADBTUNNEL_DEBUG = "KB_ADBTUNNEL_DEBUG";

namespace {

QLoggingCategory::CategoryFilter s_previousFilter = nullptr;

constexpr qsizetype MAX_DUMPED_PAYLOAD = 100;

} // namespace

void AdbTunnelLogger::installAdbTunnelLogCategory()
{
    const QLoggingCategory::CategoryFilter previous
        = QLoggingCategory::installFilter(&AdbTunnelLogger::filter);
    // Installing twice must not make the filter its own predecessor.
    if (previous != &AdbTunnelLogger::filter)
        s_previousFilter = previous;
}

void AdbTunnelLogger::filter(QLoggingCategory* category)
{
    if (qstrcmp(category->categoryName(), "tunnel") == 0) {
        // Presence is enough: KB_ADBTUNNEL_DEBUG= (empty) turns tracing on too.
        const bool enabled = qEnvironmentVariableIsSet(ENV_KB_ADBTUNNEL_DEBUG);
        category->setEnabled(QtDebugMsg, enabled);
        category->setEnabled(QtWarningMsg, enabled);
        category->setEnabled(QtCriticalMsg, enabled);
    } else if (s_previousFilter) {
        s_previousFilter(category);
    }
}

void AdbTunnelLogger::printAdbMessage(const QByteArray& message, const QString& direction)
{
    if (!tunnelCategory().isDebugEnabled())
        return;
    qCDebug(tunnelCategory).noquote() << formatAdbMessage(message, direction);
}

QString AdbTunnelLogger::formatAdbMessage(const QByteArray& message, const QString& direction)
{
    const quint32 length = AdbPacket::headerWord(message, 3);
    QString text = QLatin1String("\n[ADB MESSAGE ") + direction + QLatin1String("]\n");
    text += QLatin1String("command: ") + QString::fromLatin1(message.left(4)) + QLatin1Char('\n');
    text += QStringLiteral("arg0: %1\narg1: %2\nlen: %3\n")
                .arg(AdbPacket::headerWord(message, 1))
                .arg(AdbPacket::headerWord(message, 2))
                .arg(length);
    if (length != 0) {
        const QByteArray data
            = message.mid(AdbPacket::HEADER_SIZE, qMin(qsizetype(length), MAX_DUMPED_PAYLOAD));
        text += QLatin1String("data: ") + QString::fromLatin1(data) + QLatin1Char('\n');
        // Decodes the payload as if it were hex text; non-hex payloads give little or nothing.
        text += QLatin1String("hexdata: ") + QString::fromLatin1(QByteArray::fromHex(data))
            + QLatin1Char('\n');
    }
    text += QLatin1String("================\n");
    return text;
}
