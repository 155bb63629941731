#pragma once

#include "network/abstractwebsocket.h"

#include <QByteArrayList>

#include <functional>

// Test double: records what is sent, lets the test play the instance's frames and disconnect.
class MockWebSocket : public AbstractWebSocket
{
    Q_OBJECT
public:
    explicit MockWebSocket(QObject* parent = nullptr)
        : AbstractWebSocket(parent)
    { }

    QAbstractSocket::SocketState m_state = QAbstractSocket::ConnectedState;
    QByteArrayList m_sent;
    int m_aborts = 0;
    int m_busyFlushes = 0; // flush() reports progress this many times, keeping the sender waiting
    std::function<void()> m_onFirstBusyFlush;

    void deliver(const QByteArray& frame) { Q_EMIT binaryFrameReceived(frame, true); }
    void dropConnection()
    {
        m_state = QAbstractSocket::UnconnectedState;
        Q_EMIT disconnected();
    }

    void abort() override { ++m_aborts; }
    QWebSocketProtocol::CloseCode closeCode() const override { return QWebSocketProtocol::CloseCodeNormal; }
    QString closeReason() const override { return {}; }
    QAbstractSocket::SocketError error() const override { return QAbstractSocket::UnknownSocketError; }
    QString errorString() const override { return {}; }
    bool flush() override
    {
        if (m_busyFlushes <= 0)
            return false;
        --m_busyFlushes;
        if (m_onFirstBusyFlush)
            std::exchange(m_onFirstBusyFlush, nullptr)();
        return true;
    }
    void ignoreSslErrors(const QList<QSslError>&) override { }
    bool isValid() const override { return m_state == QAbstractSocket::ConnectedState; }
    QHostAddress localAddress() const override { return {}; }
    quint16 localPort() const override { return 0; }
    const QMaskGenerator* maskGenerator() const override { return nullptr; }
    QString origin() const override { return {}; }
    QAbstractSocket::PauseModes pauseMode() const override { return {}; }
    QHostAddress peerAddress() const override { return {}; }
    QString peerName() const override { return {}; }
    quint16 peerPort() const override { return 0; }
    QNetworkProxy proxy() const override { return {}; }
    qint64 readBufferSize() const override { return 0; }
    QUrl requestUrl() const override { return {}; }
    QString resourceName() const override { return {}; }
    void resume() override { }
    qint64 sendBinaryMessage(const QByteArray& data) override
    {
        m_sent.append(data);
        return data.size();
    }
    qint64 sendTextMessage(const QString& message) override { return message.size(); }
    void setMaskGenerator(const QMaskGenerator*) override { }
    void setPauseMode(QAbstractSocket::PauseModes) override { }
    void setProxy(const QNetworkProxy&) override { }
    void setReadBufferSize(qint64) override { }
    void setSslConfiguration(const QSslConfiguration&) override { }
    QSslConfiguration sslConfiguration() const override { return {}; }
    QAbstractSocket::SocketState state() const override { return m_state; }
    QWebSocketProtocol::Version version() const override { return QWebSocketProtocol::VersionLatest; }

public Q_SLOTS:
    void close(QWebSocketProtocol::CloseCode = QWebSocketProtocol::CloseCodeNormal,
               const QString& = QString()) override
    {
        dropConnection();
    }
    void ignoreSslErrors() override { }
    void open(const QUrl&) override { }
    void ping(const QByteArray& = QByteArray()) override { }
};
