#include "network/networkprovider.h"
#include "network/platformapitokenwebserviceclient.h"
#include "network/sslerrorhandler.h"
#include "network/ssllibs.h"
#include "network/webservicejob.h"
#include "testcredentials.h"
#include "testhttpserver.h"
#include "testkit.h"

#include <QRegularExpression>
#include <QSslCertificate>
#include <QSslKey>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <atomic>
#include <memory>

class TestNetworkProvider : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        const QString openssl = TestKit::makeSelfSignedCertificate(m_dir.path());
        QVERIFY2(openssl.isEmpty(), qPrintable(openssl));
        m_certificate = QSslCertificate::fromPath(m_dir.filePath(QStringLiteral("cert.pem"))).value(0);
        QVERIFY(!m_certificate.isNull());
        m_key = QSslKey(TestKit::readFile(m_dir.filePath(QStringLiteral("key.pem"))), QSsl::Ec, QSsl::Pem);
        QVERIFY(!m_key.isNull());

        m_provider = std::make_unique<NetworkProvider>();
        m_provider->setProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    }

    void init()
    {
        qunsetenv(SslErrorHandler::KB_TRUSTED_HOSTS_ENV);
        m_provider->getSslErrorHandler()->setTrustedHosts({});
        m_provider->getSslErrorHandler()->setUserConfirmationFunction(nullptr, {});
    }

    void oneAccessManagerPerThread()
    {
        QNetworkAccessManager* mine = m_provider->getNetworkAccessManager();
        QVERIFY(mine);
        QCOMPARE(m_provider->getNetworkAccessManager(), mine);

        QNetworkAccessManager* theirs = nullptr;
        QNetworkAccessManager* theirsAgain = nullptr;
        bool theirsInTheirThread = false;
        std::atomic<bool> theirsDestroyed { false };
        QObject watcher;
        std::unique_ptr<QThread> thread(QThread::create([&]() {
            theirs = m_provider->getNetworkAccessManager();
            theirsAgain = m_provider->getNetworkAccessManager();
            theirsInTheirThread = theirs->thread() == QThread::currentThread();
            connect(
                theirs, &QObject::destroyed, &watcher, [&]() { theirsDestroyed = true; },
                Qt::DirectConnection);
        }));
        thread->start();
        QVERIFY(thread->wait(20000));
        QVERIFY(theirs);
        QVERIFY(theirs != mine);
        QCOMPARE(theirsAgain, theirs);
        QVERIFY(theirsInTheirThread);
        QVERIFY(theirsDestroyed); // with the end of its thread
    }

    void trustedHosts_data()
    {
        QTest::addColumn<QByteArray>("environment"); // null: unset
        QTest::addColumn<QStringList>("inCode");
        QTest::addColumn<QString>("host");
        QTest::addColumn<bool>("trusted");

        const auto row = [](const char* name, const QByteArray& environment, const char* host, bool trusted,
                            const QStringList& inCode = {}) {
            QTest::newRow(name) << environment << inCode << QString::fromLatin1(host) << trusted;
        };
        // Nothing trusted, a list with an empty entry and another host are checked end to end
        // (tst_e2e_tls); every entry that is not the very host fails the same comparison.
        row("no wildcards", "*.example.test", "api.example.test", false);
        row("list set in code", "other.test", "api.example.test", true,
            { QStringLiteral("api.example.test") });
    }

    void trustedHosts()
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

    void httpsWithSelfSignedCertificate_data()
    {
        QTest::addColumn<QByteArray>("environment"); // null: unset
        QTest::addColumn<QString>("userAnswer"); // empty: no confirmation function
        QTest::addColumn<bool>("accepted");

        // The decision in a tunnel thread, where KB_TRUSTED_HOSTS alone decides without waiting for
        // the main thread, is checked end to end by tst_e2e_tls (REST and WebSocket of a tunnel).
        QTest::newRow("refused by default") << QByteArray() << QString() << false;
        QTest::newRow("user trusts") << QByteArray() << QStringLiteral("trust") << true;
        QTest::newRow("user refuses") << QByteArray() << QStringLiteral("untrust") << false;
        QTest::newRow("host trusted") << QByteArray("127.0.0.1") << QString() << true;
    }

    void httpsWithSelfSignedCertificate()
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
                    QMetaObject::invokeMethod(question, userAnswer.toLatin1().constData(),
                                              Qt::QueuedConnection);
                });
        }
        if (!accepted)
            QTest::ignoreMessage(QtDebugMsg, "SSL Error: reject connection");
        // A refused certificate is final: the request is not sent again.
        QTest::failOnWarning(QRegularExpression(QStringLiteral("retrying")));

        TestHttpServer server([](const TestHttpRequest&) { return TestHttpResponse::json(200, "{}"); });
        QVERIFY(server.listenTls(m_certificate, m_key));
        PlatformApiTokenWebServiceClient client(server.baseUrl(), &m_credentials,
                                                m_provider->getNetworkAccessManager(), nullptr);
        WebServiceJob* job = client.get(QStringLiteral("/v1/instances/abc"));
        job->waitForFinished(0);
        const WebServiceResult result = job->getResult();

        QCOMPARE(result.getNetworkError(),
                 accepted ? QNetworkReply::NoError : QNetworkReply::SslHandshakeFailedError);
        QCOMPARE(result.getHttpStatusCode(), accepted ? 200 : 0);
        if (userAnswer == QLatin1String("trust"))
            QCOMPARE(qgetenv(SslErrorHandler::KB_TRUSTED_HOSTS_ENV), QByteArray("127.0.0.1"));
        QCoreApplication::processEvents();
    }

    void preloadTlsLibraries()
    {
        QVERIFY(SslLibs::preloadLibrary(QStringLiteral("ssl"), QLatin1String(SslLibs::OPENSSL_SOVERSION)));
        QTest::ignoreMessage(QtCriticalMsg,
                             QRegularExpression(QStringLiteral("^Failed to preload \"kbnosuchlib\" \"9\"")));
        QVERIFY(!SslLibs::preloadLibrary(QStringLiteral("kbnosuchlib"), QStringLiteral("9")));
    }

private:
    QTemporaryDir m_dir;
    QSslCertificate m_certificate;
    QSslKey m_key;
    std::unique_ptr<NetworkProvider> m_provider;
    TestCredentials m_credentials;
};

QTEST_GUILESS_MAIN(TestNetworkProvider)
#include "tst_networkprovider.moc"
