#include "singleinstanceserver.h"

#include "singleinstanceutils.h"

#include <QDebug>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
#include <QLocalSocket>
#include <QPointer>
#include <QTimer>

#include <memory>

namespace {
const QLatin1String HEARTBEAT_KEY("heartbeat");
const QLatin1String PING_VALUE("ping");
const QLatin1String PONG_VALUE("pong");
constexpr int REQUEST_TIMEOUT_MS = 30000;
} // namespace

SingleInstanceServer::SingleInstanceServer(const QString& name, const QString& directory, QObject* parent)
    : QObject(parent)
    , m_instanceName(name)
{
    const QString socketName = SingleInstanceUtils::createSocketName(name);
    m_serverName = directory.isEmpty() ? socketName : directory + QLatin1Char('/') + socketName;
}

SingleInstanceServer::~SingleInstanceServer() = default;

bool SingleInstanceServer::listen()
{
    m_localServer = new QLocalServer(this);
    connect(m_localServer, &QLocalServer::newConnection, this, &SingleInstanceServer::onNewConnection);
    // Whoever may connect can command the instance; Qt sets the mode before the socket
    // appears under its name, so there is no moment when others could reach it.
    m_localServer->setSocketOptions(QLocalServer::UserAccessOption);
    QLocalServer::removeServer(m_serverName);
    const bool listening = m_localServer->listen(m_serverName);
    if (listening) {
        qDebug().noquote() << "Local socket created at path:" << m_localServer->fullServerName();
    } else {
        qWarning().noquote() << QStringLiteral("Local socket failed to create a socket for: ") + m_serverName
                + QStringLiteral(" - ") + m_localServer->errorString();
    }
    return listening;
}

QString SingleInstanceServer::getInstanceName() const
{
    return m_instanceName;
}

QString SingleInstanceServer::serverName() const
{
    return m_serverName;
}

void SingleInstanceServer::setMessageHandlerFunction(const MessageHandler& handler)
{
    m_messageHandlerFunction = handler;
}

SingleInstanceServer::MessageHandler SingleInstanceServer::getMessageHandlerFunction() const
{
    return m_messageHandlerFunction;
}

void SingleInstanceServer::onNewConnection()
{
    while (QLocalSocket* socket = m_localServer->nextPendingConnection()) {
        auto reader = std::make_shared<SingleInstanceUtils::FrameReader>();
        connect(socket, &QLocalSocket::readyRead, this, [this, socket, reader] {
            switch (reader->feed(socket->readAll())) {
            case SingleInstanceUtils::FrameReader::NeedMore:
                return;
            case SingleInstanceUtils::FrameReader::Invalid:
                qWarning().noquote() << "Dropping local socket client:" << reader->errorString();
                socket->abort();
                return;
            case SingleInstanceUtils::FrameReader::Complete:
                disconnect(socket, &QLocalSocket::readyRead, this, nullptr);
                handleRequest(socket, reader->payload());
                return;
            }
        });
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        // One request per connection; a client that stalls part-way would otherwise hold its
        // socket for the daemon's whole life. The timer is the socket's child so that it goes
        // with the socket: a context-bound single shot would stay registered for the full time
        // after every connection, and many short connections would pile them up.
        auto* timer = new QTimer(socket);
        timer->setSingleShot(true);
        connect(timer, &QTimer::timeout, socket, [socket, reader] {
            if (reader->status() == SingleInstanceUtils::FrameReader::NeedMore) {
                qWarning() << "Local socket client sent no complete request in time - dropping it";
                socket->abort();
            }
        });
        timer->start(REQUEST_TIMEOUT_MS);
    }
}

void SingleInstanceServer::handleRequest(QLocalSocket* socket, const QByteArray& payload)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(payload, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        qCritical() << "Invalid json received:" << parseError.errorString() << payload;
        socket->abort();
        return;
    }
    if (!document.isObject()) {
        qCritical() << "Received json is not an object";
        socket->abort();
        return;
    }

    const QVariantMap request = document.object().toVariantMap();
    const bool async = request.value(QStringLiteral("async")).toBool();
    const QVariantMap message = request.value(QStringLiteral("message")).toMap();

    QVariant result;
    // The handler may run a nested event loop (deleting a tunnel waits for its thread).
    QPointer<QLocalSocket> guard(socket);
    if (message.value(HEARTBEAT_KEY).toString() == PING_VALUE) {
        result = QVariantMap { { HEARTBEAT_KEY, PONG_VALUE } };
    } else if (m_messageHandlerFunction) {
        result = m_messageHandlerFunction(message);
    } else {
        qWarning() << "No message handler installed; request ignored";
    }

    if (!guard)
        return;
    if (async) {
        socket->deleteLater();
        return;
    }

    QJsonObject reply;
    reply.insert(QStringLiteral("reply"), QJsonValue::fromVariant(result));
    connect(socket, &QLocalSocket::bytesWritten, socket, [socket] {
        if (socket->bytesToWrite() == 0) {
            socket->disconnectFromServer();
            socket->deleteLater();
        }
    });
    SingleInstanceUtils::writeMessage(socket, QJsonDocument(reply).toJson(QJsonDocument::Compact));
}
