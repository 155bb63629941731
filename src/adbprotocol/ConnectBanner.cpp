#include "ConnectBanner.h"

#include <QByteArrayList>

namespace {

const QByteArrayView FEATURES_KEY = "features=";

} // namespace

QByteArray ConnectBanner::withoutFeature(QByteArrayView banner, QByteArrayView feature)
{
    // Older peers end the banner with a NUL; it stays where it is.
    qsizetype end = banner.indexOf('\0');
    if (end < 0)
        end = banner.size();
    // The properties start after the second ':' ("host::", "device::").
    const qsizetype firstColon = banner.indexOf(':');
    const qsizetype secondColon = firstColon < 0 ? -1 : banner.indexOf(':', firstColon + 1);
    if (secondColon < 0 || secondColon >= end)
        return {};

    QByteArray result;
    bool removed = false;
    qsizetype copiedUpTo = 0;
    for (qsizetype start = secondColon + 1; start <= end;) {
        qsizetype stop = banner.indexOf(';', start);
        if (stop < 0 || stop > end)
            stop = end;
        const QByteArrayView property = banner.sliced(start, stop - start);
        if (property.startsWith(FEATURES_KEY)) {
            const QByteArrayView list = property.sliced(FEATURES_KEY.size());
            QByteArrayList kept;
            bool found = false;
            qsizetype from = 0;
            for (;;) {
                qsizetype comma = list.indexOf(',', from);
                const QByteArrayView item = list.sliced(from, (comma < 0 ? list.size() : comma) - from);
                if (item == feature)
                    found = true;
                else
                    kept.append(item.toByteArray());
                if (comma < 0)
                    break;
                from = comma + 1;
            }
            if (found) {
                removed = true;
                const qsizetype listStart = start + FEATURES_KEY.size();
                result += banner.sliced(copiedUpTo, listStart - copiedUpTo);
                result += kept.join(',');
                copiedUpTo = stop;
            }
        }
        start = stop + 1;
    }
    if (!removed)
        return {};
    result += banner.sliced(copiedUpTo);
    return result;
}

bool ConnectBanner::removeFeature(AdbPacket* packet, QByteArrayView feature)
{
    if (packet->command() != AdbPacket::CNXN || packet->size() < AdbPacket::HEADER_SIZE)
        return false;
    const QByteArray message = packet->toByteArray();
    const QByteArrayView banner = QByteArrayView(message).sliced(AdbPacket::HEADER_SIZE);
    if (banner.size() != qsizetype(packet->dataLength()))
        return false;
    const QByteArray payload = withoutFeature(banner, feature);
    if (payload.isEmpty())
        return false;

    QByteArray rebuilt = message.left(AdbPacket::HEADER_SIZE) + payload;
    auto* header = reinterpret_cast<amessage*>(rebuilt.data());
    header->data_length = quint32(payload.size());
    // For CNXN, arg0 is the sender's protocol version. Only the removed bytes leave the sum, so a
    // sender's checksum (right or wrong, signed or unsigned: the removed text is ASCII) stays as
    // it would have been for this payload.
    if (packet->arg0() < VERSION_SKIP_CHECKSUM) {
        header->data_check = packet->dataCheck() - AdbPacket::checksum(banner.data(), banner.size())
            + AdbPacket::checksum(payload.constData(), payload.size());
    }
    *packet = AdbPacket::fromByteArray(rebuilt);
    return true;
}
