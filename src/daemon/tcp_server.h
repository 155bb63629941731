#pragma once

#include <QByteArray>
#include <QTcpServer>

class QHostAddress;
class TcpSocket;

// Local listener for the ADB server: serves exactly one live client at a time, and only a peer
// on this machine's loopback unless KB_TUNNEL_ALLOW_REMOTE=1.
class TcpServer : public QTcpServer
{
    Q_OBJECT
public:
    static const char* const ENV_ALLOW_REMOTE;

    explicit TcpServer(QObject* parent = nullptr);
    ~TcpServer() override;

    // Sends to the current client; dropped (and logged) when not listening or without client.
    void sendData(const QByteArray& data);
    // Stops listening and deletes the client at once.
    void stop();

    TcpSocket* client() const { return m_client; }
    // Whether a connection from peer may be served: a loopback address (IPv4, IPv6 or IPv4
    // mapped into IPv6) always, any other only when remote peers were allowed.
    bool admits(const QHostAddress& peer) const;

public Q_SLOTS:
    void onClientConnected();
    void onDataReceived(const QByteArray& data);

Q_SIGNALS:
    // Bytes from the current client; only valid during the emission (see TcpSocket).
    void dataReceived(const QByteArray& data);
    // The current client's connection ended; the server keeps listening.
    void socketDisconnected();

protected:
    void incomingConnection(qintptr socketDescriptor) override;

private:
    TcpSocket* m_client = nullptr; // owned, no parent
    bool m_allowRemote = false;
};
