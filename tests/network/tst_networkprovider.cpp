#include "network/abstractwebsocket.h"
#include "network/networkprovider.h"
#include "network/platformapitokenwebserviceclient.h"
#include "network/sslerrorhandler.h"
#include "network/ssllibs.h"
#include "network/webservicejob.h"
#include "testcredentials.h"
#include "testhttpserver.h"

#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>
#include <QWebSocketServer>

#include <atomic>
#include <memory>

class TestNetworkProvider : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void oneAccessManagerPerThread();
    void proxyIsHandedOn();
    void trustedHosts_data();
    void trustedHosts();
    void errorReport();
    void httpsWithSelfSignedCertificate_data();
    void httpsWithSelfSignedCertificate();
    void httpsFromAnotherThread_data();
    void httpsFromAnotherThread();
    void webSocketWithSelfSignedCertificate_data();
    void webSocketWithSelfSignedCertificate();
    void preloadTlsLibraries();

private:
    // Runs function in a thread of its own while this thread keeps serving the test servers.
    bool runInThread(const std::function<void()>& function);
    WebServiceJob* startGet(const QUrl& baseUrl, QNetworkAccessManager* manager,
                            std::unique_ptr<WebServiceClient>* client);

    QTemporaryDir m_dir;
    QSslCertificate m_certificate;
    QSslKey m_key;
    std::unique_ptr<NetworkProvider> m_provider;
    TestCredentials m_credentials;
};

void TestNetworkProvider::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QProcess openssl;
    openssl.setWorkingDirectory(m_dir.path());
    openssl.start(QStringLiteral("openssl"),
                  { QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"),
                    QStringLiteral("ec"), QStringLiteral("-pkeyopt"),
                    QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes"),
                    QStringLiteral("-keyout"), QStringLiteral("key.pem"), QStringLiteral("-out"),
                    QStringLiteral("cert.pem"), QStringLiteral("-days"), QStringLiteral("2"),
                    QStringLiteral("-subj"), QStringLiteral("/CN=kb-test-server") });
    QVERIFY2(openssl.waitForFinished(30000), qPrintable(openssl.errorString()));
    QCOMPARE(openssl.exitCode(), 0);

    const QList<QSslCertificate> certificates
        = QSslCertificate::fromPath(m_dir.filePath(QStringLiteral("cert.pem")));
    QCOMPARE(certificates.size(), 1);
    m_certificate = certificates.first();
    QFile keyFile(m_dir.filePath(QStringLiteral("key.pem")));
    QVERIFY(keyFile.open(QIODevice::ReadOnly));
    m_key = QSslKey(keyFile.readAll(), QSsl::Ec, QSsl::Pem);
    QVERIFY(!m_key.isNull());

    m_provider = std::make_unique<NetworkProvider>();
    m_provider->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
}

void TestNetworkProvider::init()
{
    qunsetenv(SslErrorHandler::KB_TRUSTED_HOSTS_ENV);
    m_provider->getSslErrorHandler()->setTrustedHosts({});
    m_provider->getSslErrorHandler()->setUserConfirmationFunction(nullptr, {});
}

bool TestNetworkProvider::runInThread(const std::function<void()>& function)
{
    std::unique_ptr<QThread> thread(QThread::create(function));
    QSignalSpy finished(thread.get(), &QThread::finished);
    thread->start();
    const bool ok = finished.wait(20000);
    thread->wait();
    return ok;
}

WebServiceJob* TestNetworkProvider::startGet(const QUrl& baseUrl, QNetworkAccessManager* manager,
                                             std::unique_ptr<WebServiceClient>* client)
{
    *client = std::make_unique<PlatformApiTokenWebServiceClient>(baseUrl, &m_credentials, manager, nullptr);
    return (*client)->get(QStringLiteral("/v1/instances/abc"));
}

void TestNetworkProvider::oneAccessManagerPerThread()
{
    QNetworkAccessManager* mine = m_provider->getNetworkAccessManager();
    QVERIFY(mine);
    QCOMPARE(m_provider->getNetworkAccessManager(), mine);

    QNetworkAccessManager* theirs = nullptr;
    QNetworkAccessManager* theirsAgain = nullptr;
    bool theirsInTheirThread = false;
    std::atomic<bool> theirsDestroyed { false };
    QObject watcher;
    QVERIFY(runInThread([&]() {
        theirs = m_provider->getNetworkAccessManager();
        theirsAgain = m_provider->getNetworkAccessManager();
        theirsInTheirThread = theirs->thread() == QThread::currentThread();
        connect(
            theirs, &QObject::destroyed, &watcher, [&]() { theirsDestroyed = true; }, Qt::DirectConnection);
    }));
    QVERIFY(theirs);
    QVERIFY(theirs != mine);
    QCOMPARE(theirsAgain, theirs);
    QVERIFY(theirsInTheirThread);
    QVERIFY(theirsDestroyed); // with the end of its thread
}

void TestNetworkProvider::proxyIsHandedOn()
{
    const QNetworkProxy proxy(QNetworkProxy::HttpProxy, QStringLiteral("127.0.0.1"), 3128);
    m_provider->setProxy(proxy);
    QCOMPARE(m_provider->getNetworkAccessManager()->proxy(), proxy);
    QObject owner;
    QCOMPARE(m_provider->createNetworkAccessManager(&owner)->proxy(), proxy);
    AbstractWebSocket* socket = m_provider->createWebSocket(&owner);
    QCOMPARE(socket->proxy(), proxy);
    QCOMPARE(socket->parent(), &owner);
    QCOMPARE(socket->version(), QWebSocketProtocol::Version13);
    QVERIFY(socket->origin().isEmpty());

    m_provider->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    QCOMPARE(m_provider->getNetworkAccessManager()->proxy().type(), QNetworkProxy::NoProxy);
}

void TestNetworkProvider::trustedHosts_data()
{
    QTest::addColumn<QByteArray>("environment"); // null: unset
    QTest::addColumn<QStringList>("inCode");
    QTest::addColumn<QString>("host");
    QTest::addColumn<bool>("trusted");

    QTest::newRow("nothing trusted") << QByteArray() << QStringList() << QStringLiteral("127.0.0.1") << false;
    QTest::newRow("empty variable") << QByteArray("") << QStringList() << QStringLiteral("127.0.0.1")
                                    << false;
    QTest::newRow("exact host") << QByteArray("127.0.0.1") << QStringList() << QStringLiteral("127.0.0.1")
                                << true;
    QTest::newRow("first of two, two commas")
        << QByteArray("localhost,,127.0.0.1") << QStringList() << QStringLiteral("localhost") << true;
    QTest::newRow("second of two, two commas")
        << QByteArray("localhost,,127.0.0.1") << QStringList() << QStringLiteral("127.0.0.1") << true;
    QTest::newRow("entry with scheme")
        << QByteArray("https://127.0.0.1") << QStringList() << QStringLiteral("127.0.0.1") << false;
    QTest::newRow("entry with port") << QByteArray("127.0.0.1:8443") << QStringList()
                                     << QStringLiteral("127.0.0.1") << false;
    QTest::newRow("blank after comma")
        << QByteArray("localhost, 127.0.0.1") << QStringList() << QStringLiteral("127.0.0.1") << false;
    QTest::newRow("other letter case")
        << QByteArray("LocalHost") << QStringList() << QStringLiteral("localhost") << false;
    QTest::newRow("no wildcards") << QByteArray("*.example.test") << QStringList()
                                  << QStringLiteral("api.example.test") << false;
    QTest::newRow("list set in code")
        << QByteArray("other.test") << QStringList { QStringLiteral("api.example.test") }
        << QStringLiteral("api.example.test") << true;
}

void TestNetworkProvider::trustedHosts()
{
    QFETCH(QByteArray, environment);
    QFETCH(QStringList, inCode);
    QFETCH(QString, host);
    QFETCH(bool, trusted);
    if (!environment.isNull())
        qputenv(SslErrorHandler::KB_TRUSTED_HOSTS_ENV, environment);
    m_provider->getSslErrorHandler()->setTrustedHosts(inCode);
    QCOMPARE(m_provider->getSslErrorHandler()->isIgnoringErrors(host), trusted);
}

void TestNetworkProvider::errorReport()
{
    const QList<QSslError> bare { QSslError(QSslError::SelfSignedCertificate),
                                  QSslError(QSslError::HostNameMismatch) };
    QCOMPARE(
        getSslErrorReport(bare),
        QStringList({ QStringLiteral("SSL Error(s):"), bare.at(0).errorString(), bare.at(1).errorString() })
            .join(QLatin1Char('\n')));

    const QList<QSslError> withCertificate { QSslError(QSslError::HostNameMismatch),
                                             QSslError(QSslError::SelfSignedCertificate, m_certificate) };
    const QString report = getSslErrorReport(withCertificate);
    QVERIFY(report.contains(QLatin1String("\nRelated certificate:\n")));
    QVERIFY(report.contains(QLatin1String("kb-test-server")));
    QVERIFY(report.endsWith(QString::fromLatin1(m_certificate.toPem())));
}

void TestNetworkProvider::httpsWithSelfSignedCertificate_data()
{
    QTest::addColumn<QByteArray>("environment"); // null: unset
    QTest::addColumn<QString>("userAnswer"); // empty: no confirmation function
    QTest::addColumn<bool>("accepted");

    QTest::newRow("refused by default") << QByteArray() << QString() << false;
    QTest::newRow("host in KB_TRUSTED_HOSTS") << QByteArray("localhost,127.0.0.1") << QString() << true;
    QTest::newRow("entry with scheme") << QByteArray("https://127.0.0.1") << QString() << false;
    QTest::newRow("user trusts") << QByteArray() << QStringLiteral("trust") << true;
    QTest::newRow("user refuses") << QByteArray() << QStringLiteral("untrust") << false;
}

void TestNetworkProvider::httpsWithSelfSignedCertificate()
{
    QFETCH(QByteArray, environment);
    QFETCH(QString, userAnswer);
    QFETCH(bool, accepted);
    if (!environment.isNull())
        qputenv(SslErrorHandler::KB_TRUSTED_HOSTS_ENV, environment);
    QObject receiver;
    if (!userAnswer.isEmpty()) {
        m_provider->getSslErrorHandler()->setUserConfirmationFunction(
            &receiver, [userAnswer](SslErrorUserHandler* question) {
                // Answered later, as a user would, while the handshake waits.
                QMetaObject::invokeMethod(question, userAnswer.toLatin1().constData(), Qt::QueuedConnection);
            });
    }
    if (!accepted)
        QTest::ignoreMessage(QtDebugMsg, "SSL Error: reject connection");
    QTest::failOnWarning(QRegularExpression(QStringLiteral("retrying")));

    TestHttpServer server([](const TestHttpRequest&) { return TestHttpResponse::json(200, "{}"); });
    QVERIFY(server.listenTls(m_certificate, m_key));
    std::unique_ptr<WebServiceClient> client;
    WebServiceJob* job = startGet(server.baseUrl(), m_provider->getNetworkAccessManager(), &client);
    QVERIFY(job->waitForFinished(0));
    const WebServiceResult result = job->getResult();

    if (accepted) {
        QCOMPARE(result.getError(), WebServiceResult::NoError);
        QCOMPARE(result.getHttpStatusCode(), 200);
    } else {
        QCOMPARE(result.getError(), WebServiceResult::NetworkError);
        QCOMPARE(result.getNetworkError(), QNetworkReply::SslHandshakeFailedError);
        QCOMPARE(server.connectionCount(), 1);
    }
    if (userAnswer == QLatin1String("trust"))
        QCOMPARE(qgetenv(SslErrorHandler::KB_TRUSTED_HOSTS_ENV), QByteArray("127.0.0.1"));
}

void TestNetworkProvider::httpsFromAnotherThread_data()
{
    QTest::addColumn<QByteArray>("environment");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("host in KB_TRUSTED_HOSTS") << QByteArray("127.0.0.1") << true;
    QTest::newRow("other host in KB_TRUSTED_HOSTS") << QByteArray("localhost") << false;
}

void TestNetworkProvider::httpsFromAnotherThread()
{
    // A tunnel thread's handshake does not wait for the handler in this thread: the trust
    // decision is taken in the reply's own thread.
    QFETCH(QByteArray, environment);
    QFETCH(bool, accepted);
    qputenv(SslErrorHandler::KB_TRUSTED_HOSTS_ENV, environment);
    TestHttpServer server([](const TestHttpRequest&) { return TestHttpResponse::json(200, "{}"); });
    QVERIFY(server.listenTls(m_certificate, m_key));

    WebServiceResult result;
    QVERIFY(runInThread([&]() {
        std::unique_ptr<WebServiceClient> client;
        WebServiceJob* job = startGet(server.baseUrl(), m_provider->getNetworkAccessManager(), &client);
        job->waitForFinished(0);
        result = job->getResult();
    }));
    QCOMPARE(result.getNetworkError(),
             accepted ? QNetworkReply::NoError : QNetworkReply::SslHandshakeFailedError);
    QCoreApplication::processEvents();
}

void TestNetworkProvider::webSocketWithSelfSignedCertificate_data()
{
    QTest::addColumn<QByteArray>("environment"); // null: unset
    QTest::addColumn<bool>("accepted");

    QTest::newRow("refused by default") << QByteArray() << false;
    QTest::newRow("host in KB_TRUSTED_HOSTS") << QByteArray("127.0.0.1") << true;
    QTest::newRow("entry with scheme") << QByteArray("wss://127.0.0.1") << false;
}

void TestNetworkProvider::webSocketWithSelfSignedCertificate()
{
    QFETCH(QByteArray, environment);
    QFETCH(bool, accepted);
    if (!environment.isNull())
        qputenv(SslErrorHandler::KB_TRUSTED_HOSTS_ENV, environment);

    QWebSocketServer server(QStringLiteral("kb-test"), QWebSocketServer::SecureMode);
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setLocalCertificate(m_certificate);
    configuration.setPrivateKey(m_key);
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    server.setSslConfiguration(configuration);
    QVERIFY(server.listen(QHostAddress::LocalHost));
    QUrl url;
    url.setScheme(QStringLiteral("wss"));
    url.setHost(QStringLiteral("127.0.0.1"));
    url.setPort(server.serverPort());

    // As in a tunnel: the socket lives in a worker thread.
    bool connected = false;
    QVERIFY(runInThread([&]() {
        QObject owner;
        AbstractWebSocket* socket = m_provider->createWebSocket(&owner);
        QEventLoop loop;
        connect(socket, &AbstractWebSocket::connected, &loop, [&]() {
            connected = true;
            loop.quit();
        });
        connect(socket, &AbstractWebSocket::disconnected, &loop, &QEventLoop::quit);
        QTimer::singleShot(15000, &loop, &QEventLoop::quit);
        socket->open(url);
        loop.exec();
    }));
    QCOMPARE(connected, accepted);
}

void TestNetworkProvider::preloadTlsLibraries()
{
    QVERIFY(SslLibs::preloadLibrary(QStringLiteral("ssl"), QLatin1String(SslLibs::OPENSSL_SOVERSION)));
    QTest::ignoreMessage(QtCriticalMsg,
                         QRegularExpression(QStringLiteral("^Failed to preload \"kbnosuchlib\" \"9\"")));
    QVERIFY(!SslLibs::preloadLibrary(QStringLiteral("kbnosuchlib"), QStringLiteral("9")));
}

QTEST_GUILESS_MAIN(TestNetworkProvider)
#include "tst_networkprovider.moc"
