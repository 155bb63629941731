#include "network/endpoints.h"
#include "network/networkmanager.h"
#include "network/platform.h"
#include "network/platformapitokenwebserviceclient.h"
#include "network/platformwebserviceclient.h"
#include "network/webservicejob.h"
#include "testcredentials.h"
#include "testhttpserver.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QPointer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QUrlQuery>

using Response = TestHttpResponse;

static const QString INSTANCE_PATH = QStringLiteral("/v1/instances/abc");

static WebServiceResult fetch(WebServiceClient& client)
{
    WebServiceJob* job = client.get(INSTANCE_PATH);
    if (!job->waitForFinished(0))
        qWarning("the job did not finish");
    return job->getResult();
}

class TestWebServiceClient : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QCoreApplication::setApplicationVersion(QStringLiteral("1.16.0"));
        m_credentials.email = QStringLiteral("dev@example.com");
        m_credentials.password = QStringLiteral("secret");
    }

    void init() { m_nam = std::make_unique<QNetworkAccessManager>(); }
    void userAgent_data()
    {
        QTest::addColumn<QByteArray>("environment"); // null: unset
        QTest::addColumn<QString>("expected");

        const QString platform = Platform::getPlatform();
        QTest::newRow("KB_USER_AGENT is the whole agent")
            << QByteArray("Custom Agent/2.0 (ci)") << QStringLiteral("Custom Agent/2.0 (ci)");
        QTest::newRow("empty KB_USER_AGENT is ignored")
            << QByteArray("") << QStringLiteral("Tarnwright Kestrelbox 1.16.0 - ") + platform;
    }

    void userAgent()
    {
        QFETCH(QByteArray, environment);
        QFETCH(QString, expected);
        qunsetenv(NetworkManager::ENV_USER_AGENT);
        if (!environment.isNull())
            qputenv(NetworkManager::ENV_USER_AGENT, environment);
        QVERIFY(Platform::getPlatform().startsWith(QLatin1String("Linux ")));

        TestHttpServer server([](const TestHttpRequest&) { return Response::json(200, "{}"); });
        QVERIFY(server.listen());
        PlatformApiTokenWebServiceClient client(server.baseUrl(), &m_credentials, m_nam.get(), nullptr);
        fetch(client);
        QCOMPARE(QString::fromUtf8(server.requests().value(0).headers.value("user-agent")), expected);
        qunsetenv(NetworkManager::ENV_USER_AGENT);
    }

    void urlIsJoinedWithoutNormalisation()
    {
        TestHttpServer server([](const TestHttpRequest&) { return Response::json(200, "{}"); });
        QVERIFY(server.listen());
        QUrl base = server.baseUrl();
        base.setPath(QStringLiteral("/api/"));
        PlatformApiTokenWebServiceClient client(base, &m_credentials, m_nam.get(), nullptr);
        fetch(client);
        QUrlQuery query;
        query.addQueryItem(QStringLiteral("page"), QStringLiteral("2"));
        QVERIFY(client.get(QStringLiteral("/v1/instances"), query)->waitForFinished(0));

        const QList<QByteArray> expected { "GET /api//v1/instances/abc", "GET /api//v1/instances?page=2" };
        QCOMPARE(server.targets(), expected);
    }

    void noUsableAnswer_data()
    {
        // Without an HTTP status the request is sent again, three times at most, and then ends as a
        // time-out; with one it is not. A refused connection or one closed before the status takes
        // the time-out's way; the refused one is checked end to end (tst_e2e_dailyuse, "refused").
        QTest::addColumn<int>("mode");
        QTest::addColumn<int>("expectedNetworkError");
        QTest::newRow("server never answers")
            << int(Response::NeverAnswer) << int(QNetworkReply::TimeoutError);
        QTest::newRow("cut mid-body after the status")
            << int(Response::CloseMidBody) << int(QNetworkReply::RemoteHostClosedError);
    }

    void noUsableAnswer()
    {
        QFETCH(int, mode);
        QFETCH(int, expectedNetworkError);
        const bool statusSeen = mode == Response::CloseMidBody;
        const int expectedRequests = statusSeen ? 1 : 4;

        TestHttpServer server([&](const TestHttpRequest&) {
            Response response = Response::json(200, QByteArray(100000, 'x'));
            response.mode = Response::Mode(mode);
            return response;
        });
        QVERIFY(server.listen());
        const QUrl base = server.baseUrl();
        for (int attempt = 1; attempt < expectedRequests; ++attempt)
            QTest::ignoreMessage(
                QtWarningMsg,
                QRegularExpression(QStringLiteral("^Request failed, retrying \\(%1/3\\) %2")
                                       .arg(attempt)
                                       .arg(QRegularExpression::escape(base.toString() + INSTANCE_PATH))));
        for (int attempt = 0; attempt < expectedRequests && !statusSeen; ++attempt)
            QTest::ignoreMessage(QtWarningMsg, "Timeout has occured on HTTP request.");
        QTest::failOnWarning(QRegularExpression(QStringLiteral("retrying \\(%1/").arg(expectedRequests)));

        PlatformWebServiceClient client(base, &m_credentials, m_nam.get(), nullptr);
        client.getNetworkManager()->setTimeout(200);
        const WebServiceResult result = fetch(client);
        QCOMPARE(result.getError(), statusSeen ? WebServiceResult::NetworkError : WebServiceResult::Timeout);
        QCOMPARE(int(result.getNetworkError()), expectedNetworkError);
        QCOMPARE(result.getHttpStatusCode(), statusSeen ? 200 : 0);
        QCOMPARE(server.requests().size(), expectedRequests);
        if (!statusSeen)
            QCOMPARE(result.getErrorString(), QStringLiteral("Timeout detected. Request timeout"));
    }

    // Not sent again; the body is kept whole, the log shows its start.
    void httpErrorStatus()
    {
        const QByteArray body(300, 'e');
        TestHttpServer server([&](const TestHttpRequest&) { return Response::json(500, body); });
        QVERIFY(server.listen());
        QTest::ignoreMessage(QtWarningMsg, "HTTP response is an error");
        QTest::ignoreMessage(QtDebugMsg, "HTTP status code: 500, from cache: 0");
        QTest::ignoreMessage(QtDebugMsg, "- Content-Type: application/json");
        QTest::ignoreMessage(QtDebugMsg, ("HTTP content (first 127 bytes): " + body.left(127)).constData());
        QTest::failOnWarning(QRegularExpression(QStringLiteral("retrying")));

        PlatformApiTokenWebServiceClient client(server.baseUrl(), &m_credentials, m_nam.get(), nullptr);
        const WebServiceResult result = fetch(client);
        QCOMPARE(result.getError(), WebServiceResult::NetworkError);
        QCOMPARE(result.getNetworkError(), QNetworkReply::InternalServerError);
        QCOMPARE(result.getHttpStatusCode(), 500);
        QCOMPARE(result.getContent(), body);
        QCOMPARE(server.requests().size(), 1);
    }

    void sessionRefresh_data()
    {
        QTest::addColumn<int>("loginStatus");
        QTest::addColumn<QByteArray>("loginAnswer");
        QTest::addColumn<QString>("warning"); // logged once per login
        QTest::addColumn<bool>("refreshed"); // else the client logs in three times and gives up

        QTest::newRow("full login answer")
            << 200
            << QByteArray(R"({"token": "tok-1", "user": {"email": "dev@example.com", "uuid": "u-1",)"
                          R"("is_organization_manager": true, "organization": {"name": "Acme"}}})")
            << QString() << true;
        QTest::newRow("user without organization")
            << 200 << QByteArray(R"({"token": "tok-1", "user": {"email": "dev@example.com", "uuid": "u-1"}})")
            << QStringLiteral("^Missing or empty 'organization' field in API response$") << true;
        QTest::newRow("login refused") << 403 << QByteArray(R"({"message": "bad password"})")
                                       << QStringLiteral("^Login failed:") << false;
        QTest::newRow("token is not a string")
            << 200 << QByteArray(R"({"token": 42})")
            << QStringLiteral("^Refresh session failed\\. Error message for refresh call : ") << false;
        QTest::newRow("answer is not JSON")
            << 200 << QByteArray("<html>maintenance</html>") << QString() << false;
    }

    void sessionRefresh()
    {
        QFETCH(int, loginStatus);
        QFETCH(QByteArray, loginAnswer);
        QFETCH(QString, warning);
        QFETCH(bool, refreshed);

        TestHttpServer server([&](const TestHttpRequest& request) {
            if (request.target == "/v1/users/login")
                return Response::json(loginStatus, loginAnswer);
            if (request.headers.value("authorization") == "Bearer tok-1")
                return Response::json(200, "{\"adb_url\": \"wss://example.invalid/adb\"}");
            return Response::json(401, R"({"message": "Unauthorized"})");
        });
        QVERIFY(server.listen());
        const int logins = refreshed ? 1 : 3;
        for (int login = 0; login < logins && !warning.isEmpty(); ++login)
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(warning));
        if (refreshed)
            QTest::failOnWarning(QRegularExpression(QStringLiteral(".")));

        PlatformWebServiceClient client(server.baseUrl(), &m_credentials, m_nam.get(), nullptr);
        const WebServiceResult result = fetch(client);
        QList<QByteArray> expected { "GET /v1/instances/abc" };
        for (int login = 0; login < logins; ++login)
            expected << "POST /v1/users/login"
                     << "GET /v1/instances/abc";
        QCOMPARE(server.targets(), expected);
        // The login body and the Bearer header are checked against the simulator end to end.
        QVERIFY(!server.requests().at(0).headers.contains("authorization"));
        if (refreshed) {
            QCOMPARE(result.getError(), WebServiceResult::NoError);
            QCOMPARE(result.getHttpStatusCode(), 200);
            QCOMPARE(client.getSaaSUser().uuid, QStringLiteral("u-1"));
            QCOMPARE(client.getSaaSUser().isOrganizationManager, warning.isEmpty());
            return;
        }
        QCOMPARE(result.getError(), WebServiceResult::SessionNotRefreshable);
        QCOMPARE(result.getHttpStatusCode(), 401);
        QCOMPARE(result.getNetworkError(), QNetworkReply::AuthenticationRequiredError);
        QVERIFY2(
            result.getErrorString().endsWith(QLatin1String(". Could not refresh session after 3 retries")),
            qPrintable(result.getErrorString()));
        QVERIFY(client.getSaaSUser().token.isEmpty());
    }

    void apiTokenClient()
    {
        TestHttpServer server(
            [](const TestHttpRequest&) { return Response::json(401, R"({"message": "Unauthorized"})"); });
        QVERIFY(server.listen());
        TestCredentials credentials;
        credentials.apiToken = QStringLiteral("tok-A");
        PlatformApiTokenWebServiceClient client(server.baseUrl(), &credentials, m_nam.get(), nullptr);

        // Nobody waits: the job must still deliver its result and free itself.
        QPointer<WebServiceJob> first = client.post(
            Endpoints::PLATFORM_INSTANCE_ACCESS_TOKEN,
            QJsonDocument(QJsonObject { { QStringLiteral("instance_uuid"), QStringLiteral("abc") } }));
        QSignalSpy firstFinished(first.data(), &WebServiceJob::finished);
        QVERIFY(firstFinished.wait());
        QTRY_VERIFY(first.isNull());
        const WebServiceResult result = firstFinished.at(0).at(0).value<WebServiceResult>();
        QCOMPARE(result.getError(), WebServiceResult::NetworkError);
        QCOMPARE(result.getHttpStatusCode(), 401);

        // A 401 does not make this client log in, and the token is read again for each request.
        credentials.apiToken = QStringLiteral("tok-B");
        fetch(client);
        const QList<QByteArray> expected { "POST /v1/instances/access-token", "GET /v1/instances/abc" };
        QCOMPARE(server.targets(), expected);
        QCOMPARE(server.requests().at(0).headers.value("x-api-token"), QByteArray("tok-A"));
        QCOMPARE(server.requests().at(1).headers.value("x-api-token"), QByteArray("tok-B"));
        QVERIFY(!server.requests().at(1).headers.contains("authorization"));
    }

private:
    TestCredentials m_credentials;
    std::unique_ptr<QNetworkAccessManager> m_nam; // fresh for each test: no connection is reused
};

QTEST_GUILESS_MAIN(TestWebServiceClient)
#include "tst_webserviceclient.moc"
