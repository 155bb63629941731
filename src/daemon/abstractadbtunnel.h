#pragma once

#include <QObject>

// One attempt at connecting one instance, as its controller sees it: started in the worker
// thread with doWork(), it reports success() once and error() for every failure, both from that
// thread. AdbTunnel is the real one; the controller takes a factory so its restart policy can be
// driven by attempts that fail on demand.
class AbstractAdbTunnel : public QObject
{
    Q_OBJECT
public:
    // A fixed underlying type: an error number from elsewhere that no name matches stays a valid
    // value (the controller treats it as not restartable).
    enum Error : int {
        AuthenticationError = 0,
        DisconnectionError = 1,
        BridgeBusyPortError = 2,
        AdbError = 3,
    };
    Q_ENUM(Error)

    explicit AbstractAdbTunnel(QObject* parent = nullptr);
    ~AbstractAdbTunnel() override;

public Q_SLOTS:
    virtual void doWork() = 0;

Q_SIGNALS:
    void success(); // ADB is connected through the tunnel; emitted from the tunnel's thread
    void error(const AbstractAdbTunnel::Error& error); // every failure, once per cause; tunnel's thread
};

Q_DECLARE_METATYPE(AbstractAdbTunnel::Error)
