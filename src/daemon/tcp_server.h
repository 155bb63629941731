#pragma once

#include <QByteArray>
#include <QTcpServer>

class TcpSocket;

// Local listener for the ADB server: serves exactly one live client at a time.
class TcpServer : public QTcpServer
{
    Q_OBJECT
public:
    explicit TcpServer(QObject* parent = nullptr);
    ~TcpServer() override;

    // Sends to the current client; dropped (and logged) when not listening or without client.
    void sendData(const QByteArray& data);
    // Stops listening and deletes the client at once.
    void stop();

    TcpSocket* client() const { return m_client; }

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
};
