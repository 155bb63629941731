#include "singleinstanceclient.h"

#include "singleinstanceutils.h"

#include <QCoreApplication>
#include <QDebug>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalSocket>

namespace {
constexpr int CONNECTION_TIMEOUT_MS = 30000;
} // namespace

SingleInstanceClient::SingleInstanceClient(const QString& name, const QString& directory, QObject* parent)
    : QObject(parent)
{
    const QString socketName = SingleInstanceUtils::createSocketName(name);
    m_serverName = directory.isEmpty() ? socketName : directory + QLatin1Char('/') + socketName;
}

SingleInstanceClient::~SingleInstanceClient() = default;

bool SingleInstanceClient::connectToExistingInstance()
{
    m_socket = std::make_unique<QLocalSocket>();
    m_socket->connectToServer(m_serverName, QIODevice::ReadWrite);
    if (m_socket->waitForConnected(CONNECTION_TIMEOUT_MS))
        return true;
    m_socket.reset();
    return false;
}

bool SingleInstanceClient::disconnectFromExistingInstance()
{
    if (!m_socket)
        return false;
    m_socket->disconnectFromServer();
    return m_socket->state() == QLocalSocket::UnconnectedState
        || m_socket->waitForDisconnected(CONNECTION_TIMEOUT_MS);
}

bool SingleInstanceClient::sendMessageInternal(const QVariantMap& message, Mode mode)
{
    if (!connectToExistingInstance())
        return false;
    QJsonObject envelope;
    envelope.insert(QStringLiteral("async"), mode == Async);
    envelope.insert(QStringLiteral("message"), QJsonObject::fromVariantMap(message));
    return SingleInstanceUtils::writeMessage(m_socket.get(),
                                             QJsonDocument(envelope).toJson(QJsonDocument::Compact));
}

QVariant SingleInstanceClient::sendMessage(const QVariantMap& message, int timeoutMs)
{
    if (!sendMessageInternal(message, Sync))
        return {};

    QElapsedTimer timer;
    timer.start();
    while (m_socket->bytesAvailable() < 1) {
        if (timer.elapsed() >= timeoutMs) {
            qCritical() << "Waited too long for the reply";
            m_socket.reset();
            return {};
        }
        if (m_socket->state() != QLocalSocket::ConnectedState && m_socket->bytesAvailable() < 1) {
            // The instance dropped us without answering; waiting longer cannot help.
            m_socket.reset();
            return {};
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents);
        m_socket->waitForReadyRead(10);
    }

    const QByteArray bytes = SingleInstanceUtils::readMessage(m_socket.get());
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &parseError);
    m_socket.reset();
    if (parseError.error != QJsonParseError::NoError) {
        qCritical() << "Error while parsing the reply:" << parseError.errorString() << bytes;
        return {};
    }
    return document.object().value(QStringLiteral("reply")).toVariant();
}

bool SingleInstanceClient::sendAsyncMessage(const QVariantMap& message)
{
    const bool sent = sendMessageInternal(message, Async);
    if (m_socket) {
        QLocalSocket* socket = m_socket.release();
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        socket->disconnectFromServer();
        if (socket->state() == QLocalSocket::UnconnectedState)
            socket->deleteLater();
    }
    return sent;
}
