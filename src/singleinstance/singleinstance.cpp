#include "singleinstance.h"

#include "singleinstanceclient.h"
#include "singleinstanceutils.h"

#include "utils/filepermissions.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QLockFile>
#include <QThread>

namespace {
constexpr int POLL_INTERVAL_MS = 100;
constexpr int HEARTBEAT_TIMEOUT_MS = 1000;
} // namespace

SingleInstance::SingleInstance(const QString& name, const QString& directory, QObject* parent)
    : QObject(parent)
{
    const QString dir = directory.isEmpty() ? QDir::tempPath() : directory;
    // The directory holds the socket that controls the instance: it is its owner's alone.
    FilePermissions::makePrivatePath(dir);
    m_client = new SingleInstanceClient(name, dir, this);
    m_server = new SingleInstanceServer(name, dir, this);
    m_lockFilePath
        = dir + QLatin1Char('/') + SingleInstanceUtils::createSocketName(name) + QStringLiteral(".lock");
}

SingleInstance::~SingleInstance() = default;

void SingleInstance::setMessageHandlerFunction(const SingleInstanceServer::MessageHandler& handler)
{
    m_server->setMessageHandlerFunction(handler);
}

SingleInstanceServer* SingleInstance::getServer() const
{
    return m_server;
}

int SingleInstance::tryCreateInstance()
{
    Locker locker(this);
    if (m_client->connectToExistingInstance())
        return 1;
    return m_server->listen() ? 0 : 2;
}

bool SingleInstance::startServer()
{
    return m_server->listen();
}

bool SingleInstance::startServer(const QVariantMap& message)
{
    if (!m_server->listen())
        return false;
    m_server->getMessageHandlerFunction()(message);
    return true;
}

bool SingleInstance::createInstanceOrSendMessage(const QVariantMap& message, int timeoutMs)
{
    Locker locker(this);
    if (!m_client->sendMessage(message, timeoutMs).isValid())
        return startServer(message);
    return false;
}

QVariant SingleInstance::sendMessage(const QVariantMap& message, int timeoutMs)
{
    Locker locker(this);
    return m_client->sendMessage(message, timeoutMs);
}

bool SingleInstance::sendAsyncMessage(const QVariantMap& message)
{
    Locker locker(this);
    return m_client->sendAsyncMessage(message);
}

bool SingleInstance::waitForInstanceConnected(int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs, Qt::CoarseTimer);
    do {
        if (m_client->connectToExistingInstance())
            return true;
        QThread::msleep(POLL_INTERVAL_MS);
    } while (!deadline.hasExpired());
    return false;
}

bool SingleInstance::waitForInstanceDisconnected(int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs, Qt::CoarseTimer);
    const QVariantMap ping { { QStringLiteral("heartbeat"), QStringLiteral("ping") } };
    do {
        if (!m_client->sendMessage(ping, HEARTBEAT_TIMEOUT_MS).isValid())
            return true;
        QThread::msleep(POLL_INTERVAL_MS);
    } while (!deadline.hasExpired());
    return false;
}

// The lock file object is created but deliberately never locked: concurrent clients are not
// serialised, and no lock file may appear next to the socket.
void SingleInstance::lock()
{
    m_lockFile = std::make_unique<QLockFile>(m_lockFilePath);
}

void SingleInstance::unlock()
{
    m_lockFile.reset();
}
