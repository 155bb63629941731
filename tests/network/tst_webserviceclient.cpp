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
#include <QTcpServer>
#include <QTest>
#include <QUrlQuery>

using Response = TestHttpResponse;

static const QString INSTANCE_PATH = QStringLiteral("/v1/instances/abc");

static quint16 closedPort()
{
    QTcpServer server;
    server.listen(QHostAddress::LocalHost);
    return server.serverPort();
}

static QUrl urlWithPath(QUrl url, const QString& path)
{
    url.setPath(path);
    return url;
}

class TestWebServiceClient : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void userAgent_data();
    void userAgent();
    void urlIsJoinedWithoutNormalisation();
    void closedPortIsRetriedThenTimesOut();
    void noUsableAnswer_data();
    void noUsableAnswer();
    void httpErrorStatus_data();
    void httpErrorStatus();
    void sessionRefresh_data();
    void sessionRefresh();
    void loginKeepsFailing_data();
    void loginKeepsFailing();
    void apiTokenClient();
    void realNetworkError_data();
    void realNetworkError();
    void waitForFinished_data();
    void waitForFinished();
    void resultValue();

private:
    TestCredentials m_credentials;
};

void TestWebServiceClient::initTestCase()
{
    QCoreApplication::setApplicationVersion(QStringLiteral("1.16.0"));
    m_credentials.email = QStringLiteral("dev@example.com");
    m_credentials.password = QStringLiteral("secret");
}

void TestWebServiceClient::init()
{
    qunsetenv(NetworkManager::ENV_USER_AGENT);
    NetworkManager::setExtraUserAgentBase(QString());
}

void TestWebServiceClient::userAgent_data()
{
    QTest::addColumn<QByteArray>("environment"); // null: unset
    QTest::addColumn<QString>("extraBase");
    QTest::addColumn<QString>("expected");

    const QString platform = Platform::getPlatform();
    QTest::newRow("KB_USER_AGENT is the whole agent")
        << QByteArray("Custom Agent/2.0 (ci)") << QStringLiteral("Hub")
        << QStringLiteral("Custom Agent/2.0 (ci)");
    QTest::newRow("empty KB_USER_AGENT is ignored")
        << QByteArray("") << QString() << QStringLiteral("Tarnwright Kestrelbox 1.16.0 - ") + platform;
    QTest::newRow("default") << QByteArray() << QString()
                             << QStringLiteral("Tarnwright Kestrelbox 1.16.0 - ") + platform;
    QTest::newRow("extra base") << QByteArray() << QStringLiteral("Onsite")
                                << QStringLiteral("Tarnwright Kestrelbox Onsite 1.16.0 - ") + platform;
}

void TestWebServiceClient::userAgent()
{
    QFETCH(QByteArray, environment);
    QFETCH(QString, extraBase);
    QFETCH(QString, expected);
    if (!environment.isNull())
        qputenv(NetworkManager::ENV_USER_AGENT, environment);
    NetworkManager::setExtraUserAgentBase(extraBase);

    QVERIFY(Platform::getPlatform().startsWith(QLatin1String("Linux ")));
    QCOMPARE(NetworkManager::getUserAgent(), expected);

    TestHttpServer server([](const TestHttpRequest&) { return Response::json(200, "{}"); });
    QVERIFY(server.listen());
    QNetworkAccessManager nam;
    PlatformApiTokenWebServiceClient client(server.baseUrl(), &m_credentials, &nam, nullptr);
    WebServiceJob* job = client.get(INSTANCE_PATH);
    QVERIFY(job->waitForFinished(0));
    QCOMPARE(server.requests().size(), 1);
    QCOMPARE(QString::fromUtf8(server.requests().at(0).headers.value("user-agent")), expected);
}

void TestWebServiceClient::urlIsJoinedWithoutNormalisation()
{
    TestHttpServer server([](const TestHttpRequest&) { return Response::json(200, "{}"); });
    QVERIFY(server.listen());
    QNetworkAccessManager nam;
    PlatformApiTokenWebServiceClient client(urlWithPath(server.baseUrl(), QStringLiteral("/api/")),
                                            &m_credentials, &nam, nullptr);
    QVERIFY(client.get(INSTANCE_PATH)->waitForFinished(0));
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("page"), QStringLiteral("2"));
    QVERIFY(client.get(QStringLiteral("/v1/instances"), query)->waitForFinished(0));
    QVERIFY(client.get(QStringLiteral("v1"), QUrlQuery())->waitForFinished(0));

    const QList<QByteArray> expected { "GET /api//v1/instances/abc", "GET /api//v1/instances?page=2",
                                       "GET /api/v1" };
    QCOMPARE(server.targets(), expected);
}

void TestWebServiceClient::closedPortIsRetriedThenTimesOut()
{
    QUrl base;
    base.setScheme(QStringLiteral("http"));
    base.setHost(QStringLiteral("127.0.0.1"));
    base.setPort(closedPort());
    const QString url = base.toString() + INSTANCE_PATH;
    for (int attempt = 1; attempt <= 3; ++attempt) {
        QTest::ignoreMessage(
            QtWarningMsg,
            qPrintable(QStringLiteral("Request failed, retrying (%1/3) %2").arg(attempt).arg(url)));
    }
    QTest::failOnWarning(QRegularExpression(QStringLiteral("retrying \\(4/")));

    QNetworkAccessManager nam;
    PlatformWebServiceClient client(base, &m_credentials, &nam, nullptr);
    WebServiceJob* job = client.get(INSTANCE_PATH);
    QVERIFY(job->waitForFinished(0));
    const WebServiceResult result = job->getResult();
    QCOMPARE(result.getError(), WebServiceResult::Timeout);
    QCOMPARE(result.getNetworkError(), QNetworkReply::ConnectionRefusedError);
    QCOMPARE(result.getHttpStatusCode(), 0);
    QVERIFY2(result.getErrorString().endsWith(QLatin1String(". Request timeout")),
             qPrintable(result.getErrorString()));
}

void TestWebServiceClient::noUsableAnswer_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("expectedError");
    QTest::addColumn<int>("expectedNetworkError");
    QTest::addColumn<int>("expectedStatus");
    QTest::addColumn<int>("expectedRequests");

    QTest::newRow("connection closed without an answer")
        << int(Response::CloseWithoutAnswer) << 200 << int(WebServiceResult::Timeout)
        << int(QNetworkReply::RemoteHostClosedError) << 0 << 4;
    QTest::newRow("server never answers")
        << int(Response::NeverAnswer) << 200 << int(WebServiceResult::Timeout)
        << int(QNetworkReply::TimeoutError) << 0 << 4;
    // Qt withholds a 401 until its body is complete: no status, so no login either.
    QTest::newRow("401 cut mid-body") << int(Response::CloseMidBody) << 401 << int(WebServiceResult::Timeout)
                                      << int(QNetworkReply::RemoteHostClosedError) << 0 << 4;
    QTest::newRow("200 cut mid-body")
        << int(Response::CloseMidBody) << 200 << int(WebServiceResult::NetworkError)
        << int(QNetworkReply::RemoteHostClosedError) << 200 << 1;
}

void TestWebServiceClient::noUsableAnswer()
{
    QFETCH(int, mode);
    QFETCH(int, status);
    QFETCH(int, expectedError);
    QFETCH(int, expectedNetworkError);
    QFETCH(int, expectedStatus);
    QFETCH(int, expectedRequests);

    TestHttpServer server([&](const TestHttpRequest&) {
        Response response = Response::json(status, QByteArray(100000, 'x'));
        response.mode = Response::Mode(mode);
        return response;
    });
    QVERIFY(server.listen());
    for (int attempt = 1; attempt < expectedRequests; ++attempt)
        QTest::ignoreMessage(
            QtWarningMsg,
            QRegularExpression(QStringLiteral("^Request failed, retrying \\(%1/3\\) ").arg(attempt)));
    if (mode == Response::NeverAnswer) {
        for (int attempt = 0; attempt < expectedRequests; ++attempt)
            QTest::ignoreMessage(QtWarningMsg, "Timeout has occured on HTTP request.");
    }
    QTest::failOnWarning(QRegularExpression(QStringLiteral("retrying \\(%1/").arg(expectedRequests)));

    QNetworkAccessManager nam;
    PlatformWebServiceClient client(server.baseUrl(), &m_credentials, &nam, nullptr);
    client.getNetworkManager()->setTimeout(200);
    WebServiceJob* job = client.get(INSTANCE_PATH);
    QVERIFY(job->waitForFinished(0));
    const WebServiceResult result = job->getResult();

    QCOMPARE(int(result.getError()), expectedError);
    QCOMPARE(int(result.getNetworkError()), expectedNetworkError);
    QCOMPARE(result.getHttpStatusCode(), expectedStatus);
    // Qt itself sends a request once more when a connection closes before any answer.
    if (mode == Response::CloseWithoutAnswer)
        QVERIFY(server.requests().size() >= expectedRequests);
    else
        QCOMPARE(server.requests().size(), expectedRequests);
    QVERIFY(!server.targets().contains("POST /v1/users/login"));
    if (expectedError == WebServiceResult::Timeout)
        QVERIFY(result.getErrorString().endsWith(QLatin1String(". Request timeout")));
    if (expectedNetworkError == QNetworkReply::TimeoutError)
        QCOMPARE(result.getErrorString(), QStringLiteral("Timeout detected. Request timeout"));
}

void TestWebServiceClient::httpErrorStatus_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("expectedNetworkError");

    QTest::newRow("404 with a body") << 404 << QByteArray("{\"message\": \"no such instance\"}")
                                     << int(QNetworkReply::ContentNotFoundError);
    QTest::newRow("500 with a long body")
        << 500 << QByteArray(300, 'e') << int(QNetworkReply::InternalServerError);
}

void TestWebServiceClient::httpErrorStatus()
{
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    QFETCH(int, expectedNetworkError);

    TestHttpServer server([&](const TestHttpRequest&) { return Response::json(status, body); });
    QVERIFY(server.listen());
    QTest::ignoreMessage(QtWarningMsg, "HTTP response is an error");
    QTest::ignoreMessage(QtDebugMsg,
                         qPrintable(QStringLiteral("HTTP status code: %1, from cache: 0").arg(status)));
    QTest::ignoreMessage(QtDebugMsg, "- Content-Type: application/json");
    QTest::ignoreMessage(
        QtDebugMsg,
        qPrintable(QStringLiteral("HTTP content (first 127 bytes): ") + QString::fromUtf8(body.left(127))));
    QTest::failOnWarning(QRegularExpression(QStringLiteral("retrying")));

    QNetworkAccessManager nam;
    PlatformApiTokenWebServiceClient client(server.baseUrl(), &m_credentials, &nam, nullptr);
    WebServiceJob* job = client.get(INSTANCE_PATH);
    QVERIFY(job->waitForFinished(0));
    const WebServiceResult result = job->getResult();
    QCOMPARE(result.getError(), WebServiceResult::NetworkError);
    QCOMPARE(int(result.getNetworkError()), expectedNetworkError);
    QCOMPARE(result.getHttpStatusCode(), status);
    QCOMPARE(result.getContent(), body);
    QCOMPARE(server.requests().size(), 1);
}

void TestWebServiceClient::sessionRefresh_data()
{
    QTest::addColumn<QByteArray>("loginAnswer");
    QTest::addColumn<bool>("organizationWarning");

    QTest::newRow("full login answer")
        << QByteArray(R"({"token": "tok-1", "user": {"email": "dev@example.com", "uuid": "u-1",
                      "is_organization_manager": true, "organization": {"name": "Acme"}}})")
        << false;
    QTest::newRow("user without organization")
        << QByteArray(R"({"token": "tok-1", "user": {"email": "dev@example.com", "uuid": "u-1"}})") << true;
}

void TestWebServiceClient::sessionRefresh()
{
    QFETCH(QByteArray, loginAnswer);
    QFETCH(bool, organizationWarning);

    TestHttpServer server([&](const TestHttpRequest& request) {
        if (request.target == "/v1/users/login")
            return Response::json(200, loginAnswer);
        if (request.headers.value("authorization") == "Bearer tok-1")
            return Response::json(200, R"({"adb_url": "wss://example.invalid/adb"})");
        return Response::json(401, R"({"message": "Unauthorized"})");
    });
    QVERIFY(server.listen());
    if (organizationWarning)
        QTest::ignoreMessage(QtWarningMsg, "Missing or empty 'organization' field in API response");
    else
        QTest::failOnWarning(QRegularExpression(QStringLiteral("organization")));

    QNetworkAccessManager nam;
    PlatformWebServiceClient client(server.baseUrl(), &m_credentials, &nam, nullptr);
    WebServiceJob* job = client.get(INSTANCE_PATH);
    QVERIFY(job->waitForFinished(0));
    const WebServiceResult result = job->getResult();
    QCOMPARE(result.getError(), WebServiceResult::NoError);
    QCOMPARE(result.getHttpStatusCode(), 200);

    const QList<QByteArray> expected { "GET /v1/instances/abc", "POST /v1/users/login",
                                       "GET /v1/instances/abc" };
    QCOMPARE(server.targets(), expected);
    const QList<TestHttpRequest> requests = server.requests();
    QVERIFY(!requests.at(0).headers.contains("authorization"));
    QCOMPARE(requests.at(1).headers.value("content-type"), QByteArray("application/json"));
    const QJsonObject login = QJsonDocument::fromJson(requests.at(1).body).object();
    QCOMPARE(login,
             QJsonObject({ { QStringLiteral("email"), QStringLiteral("dev@example.com") },
                           { QStringLiteral("password"), QStringLiteral("secret") } }));
    QCOMPARE(requests.at(2).headers.value("authorization"), QByteArray("Bearer tok-1"));

    const PlatformWebServiceClient::SaaSUser user = client.getSaaSUser();
    QCOMPARE(user.token, QStringLiteral("tok-1"));
    QCOMPARE(user.uuid, QStringLiteral("u-1"));
    QCOMPARE(user.isOrganizationManager, !organizationWarning);

    client.resetSession();
    QVERIFY(client.getSaaSUser().token.isEmpty());
}

void TestWebServiceClient::loginKeepsFailing_data()
{
    QTest::addColumn<int>("loginStatus");
    QTest::addColumn<QByteArray>("loginAnswer");
    QTest::addColumn<QString>("warning"); // logged once per login; empty: none

    QTest::newRow("login refused") << 403 << QByteArray(R"({"message": "bad password"})")
                                   << QStringLiteral("^Login failed:");
    QTest::newRow("answer without token")
        << 200 << QByteArray(R"({"user": {"email": "dev@example.com"}})")
        << QStringLiteral("^Refresh session failed\\. Error message for refresh call : ");
    QTest::newRow("answer is an array")
        << 200 << QByteArray("[1, 2]")
        << QStringLiteral("^Refresh session failed\\. Error message for refresh call : ");
    QTest::newRow("answer is not JSON") << 200 << QByteArray("<html>maintenance</html>") << QString();
    QTest::newRow("token is not a string")
        << 200 << QByteArray(R"({"token": 42})")
        << QStringLiteral("^Refresh session failed\\. Error message for refresh call : ");
}

void TestWebServiceClient::loginKeepsFailing()
{
    QFETCH(int, loginStatus);
    QFETCH(QByteArray, loginAnswer);
    QFETCH(QString, warning);

    TestHttpServer server([&](const TestHttpRequest& request) {
        if (request.target == "/v1/users/login")
            return Response::json(loginStatus, loginAnswer);
        return Response::json(401, R"({"message": "Unauthorized"})");
    });
    QVERIFY(server.listen());
    if (!warning.isEmpty()) {
        for (int login = 0; login < 3; ++login)
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression(warning));
    }

    QNetworkAccessManager nam;
    PlatformWebServiceClient client(server.baseUrl(), &m_credentials, &nam, nullptr);
    WebServiceJob* job = client.get(INSTANCE_PATH);
    QVERIFY(job->waitForFinished(0));
    const WebServiceResult result = job->getResult();
    QCOMPARE(result.getError(), WebServiceResult::SessionNotRefreshable);
    QCOMPARE(result.getHttpStatusCode(), 401);
    QCOMPARE(result.getNetworkError(), QNetworkReply::AuthenticationRequiredError);
    QVERIFY2(result.getErrorString().endsWith(QLatin1String(". Could not refresh session after 3 retries")),
             qPrintable(result.getErrorString()));

    const QList<QByteArray> expected { "GET /v1/instances/abc", "POST /v1/users/login",
                                       "GET /v1/instances/abc", "POST /v1/users/login",
                                       "GET /v1/instances/abc", "POST /v1/users/login",
                                       "GET /v1/instances/abc" };
    QCOMPARE(server.targets(), expected);
    QVERIFY(client.getSaaSUser().token.isEmpty());
}

void TestWebServiceClient::apiTokenClient()
{
    TestHttpServer server(
        [](const TestHttpRequest&) { return Response::json(401, R"({"message": "Unauthorized"})"); });
    QVERIFY(server.listen());
    TestCredentials credentials;
    credentials.apiToken = QStringLiteral("tok-A");
    QNetworkAccessManager nam;
    PlatformApiTokenWebServiceClient client(server.baseUrl(), &credentials, &nam, nullptr);

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

    credentials.apiToken = QStringLiteral("tok-B");
    QVERIFY(client.get(INSTANCE_PATH)->waitForFinished(0));

    const QList<QByteArray> expected { "POST /v1/instances/access-token", "GET /v1/instances/abc" };
    QCOMPARE(server.targets(), expected);
    QCOMPARE(server.requests().at(0).headers.value("x-api-token"), QByteArray("tok-A"));
    QCOMPARE(server.requests().at(1).headers.value("x-api-token"), QByteArray("tok-B"));
    QVERIFY(!server.requests().at(1).headers.contains("authorization"));
}

void TestWebServiceClient::realNetworkError_data()
{
    QTest::addColumn<bool>("byTimeout");
    QTest::addColumn<int>("expectedError");
    QTest::addColumn<QString>("expectedText");

    QTest::newRow("request time-out")
        << true << int(QNetworkReply::TimeoutError) << QStringLiteral("Timeout detected");
    QTest::newRow("cancel") << false << int(QNetworkReply::OperationCanceledError)
                            << QStringLiteral("Operation canceled");
}

void TestWebServiceClient::realNetworkError()
{
    QFETCH(bool, byTimeout);
    QFETCH(int, expectedError);
    QFETCH(QString, expectedText);

    TestHttpServer server([](const TestHttpRequest&) {
        Response response;
        response.mode = Response::NeverAnswer;
        return response;
    });
    QVERIFY(server.listen());
    NetworkManager manager(nullptr);
    manager.setServerBaseUrl(server.baseUrl());
    manager.setTimeout(byTimeout ? 100 : 60000);
    if (byTimeout)
        QTest::ignoreMessage(QtWarningMsg, "Timeout has occured on HTTP request.");

    std::unique_ptr<QNetworkReply> reply(manager.get(INSTANCE_PATH, NetworkManager::FullUrl));
    QSignalSpy finished(reply.get(), &QNetworkReply::finished);
    if (!byTimeout) {
        QSignalSpy received(&server, &TestHttpServer::requestReceived);
        QVERIFY(received.wait());
        reply->abort();
    }
    QTRY_COMPARE(finished.size(), 1);

    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    QString text;
    NetworkManager::getRealNetworkError(reply.get(), &error, &text);
    QCOMPARE(int(error), expectedError);
    QCOMPARE(text, expectedText);
    QCOMPARE(reply->error(), QNetworkReply::OperationCanceledError);
}

void TestWebServiceClient::waitForFinished_data()
{
    QTest::addColumn<bool>("answer");
    QTest::addColumn<int>("limit");
    QTest::addColumn<bool>("userCancels");
    QTest::addColumn<bool>("expectedReturn");
    QTest::addColumn<int>("expectedError");
    QTest::addColumn<QString>("expectedErrorString");

    QTest::newRow("no limit") << true << 0 << false << true << int(WebServiceResult::NoError) << QString();
    QTest::newRow("limit reached") << false << 100 << false << false << int(WebServiceResult::Canceled)
                                   << QStringLiteral("Request has been canceled by timeout");
    QTest::newRow("cancelled by the user") << false << 0 << true << true << int(WebServiceResult::Canceled)
                                           << QStringLiteral("Request has been canceled by the user");
}

void TestWebServiceClient::waitForFinished()
{
    QFETCH(bool, answer);
    QFETCH(int, limit);
    QFETCH(bool, userCancels);
    QFETCH(bool, expectedReturn);
    QFETCH(int, expectedError);
    QFETCH(QString, expectedErrorString);

    TestHttpServer server([&](const TestHttpRequest&) {
        Response response = Response::json(200, "{}");
        if (!answer)
            response.mode = Response::NeverAnswer;
        return response;
    });
    QVERIFY(server.listen());
    QNetworkAccessManager nam;
    PlatformApiTokenWebServiceClient client(server.baseUrl(), &m_credentials, &nam, nullptr);
    QPointer<WebServiceJob> job = client.get(INSTANCE_PATH);
    if (userCancels)
        connect(&server, &TestHttpServer::requestReceived, job, &WebServiceJob::cancel);

    QCOMPARE(job->waitForFinished(limit), expectedReturn);
    const WebServiceResult result = job->getResult();
    QCOMPARE(int(result.getError()), expectedError);
    QCOMPARE(result.getErrorString(), expectedErrorString);
    QVERIFY(job->isFinished());
    QTRY_VERIFY(job.isNull());
    QCOMPARE(server.requests().size(), 1);
}

void TestWebServiceClient::resultValue()
{
    WebServiceResult a;
    a.setHttpStatusCode(200);
    a.setContent("not json");
    a.setErrorString(QStringLiteral("Unknown error. "));
    WebServiceResult b = a;
    b.setHttpHeaders({ qMakePair(QByteArray("Date"), QByteArray("today")) });
    QCOMPARE(a, b);
    QVERIFY(a.getErrorString().isEmpty());
    b.setError(WebServiceResult::NetworkError);
    QVERIFY(a != b);

    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^Failed to parse JSON content")));
    QVERIFY(a.getContentAsJson().isNull());
}

QTEST_GUILESS_MAIN(TestWebServiceClient)
#include "tst_webserviceclient.moc"
