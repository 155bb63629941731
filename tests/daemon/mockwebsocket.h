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
    // Sent bytes count as unwritten until drain(), as on a network that does not keep up.
    bool m_holdWrites = false;
    qint64 m_bytesToWrite = 0;
    QList<qint64> m_bytesToWriteAtSend; // m_bytesToWrite before each send
    bool m_paused = false;
    QByteArrayList m_heldFrames; // delivered while paused
    std::function<void(bool)> m_onPause; // called at each change of the pause

    // Frames delivered while reading is paused wait, as they would in the kernel's buffers.
    void deliver(const QByteArray& frame)
    {
        if (m_paused)
            m_heldFrames.append(frame);
        else
            Q_EMIT binaryFrameReceived(frame, true);
    }
    void drain(qint64 bytes)
    {
        bytes = qMin(bytes, m_bytesToWrite);
        m_bytesToWrite -= bytes;
        Q_EMIT bytesWritten(bytes);
    }
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
    bool flush() override { return false; }
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
        m_bytesToWriteAtSend.append(m_bytesToWrite);
        if (m_holdWrites)
            m_bytesToWrite += data.size();
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
    qint64 bytesToWrite() const override { return m_bytesToWrite; }
    bool isReadingPaused() const override { return m_paused; }
    void setReadingPaused(bool paused) override
    {
        if (paused == m_paused)
            return;
        m_paused = paused;
        if (m_onPause)
            m_onPause(paused);
        // Like a socket resuming, the held frames come from the event loop, not from this call.
        if (!paused) {
            QMetaObject::invokeMethod(
                this,
                [this] {
                    while (!m_paused && !m_heldFrames.isEmpty())
                        Q_EMIT binaryFrameReceived(m_heldFrames.takeFirst(), true);
                },
                Qt::QueuedConnection);
        }
    }

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
