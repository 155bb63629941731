// The platform's replies as the authenticator reads them: the access-token reply, the instance
// details and the WebSocket's answer to the token. The first byte picks the result's error
// state; the rest is the content. Each reading must either yield a usable value or report one
// error, never both and never crash.
#include "daemon/platformauthenticator.h"
#include "fuzzsupport.h"
#include "mockwebsocket.h"
#include "network/webserviceresult.h"

#include <QSignalSpy>

class PlatformAuthenticatorProbe
{
public:
    static QString accessToken(PlatformAuthenticator& authenticator, const WebServiceResult& result)
    {
        return authenticator.extractInstanceAccessTokenFromReply(result);
    }
    static QString adbUrl(PlatformAuthenticator& authenticator, const WebServiceResult& result)
    {
        return authenticator.getAdbTunnelUriFromInstanceDetails(result);
    }
    static void textMessage(PlatformAuthenticator& authenticator, const QString& message)
    {
        authenticator.onTextMessageReceived(message);
    }
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzSupport::application();
    FuzzSupport::Input input(data, size);
    const uint8_t flags = input.byte();
    const QByteArray content = input.bytes(input.remaining());

    WebServiceResult result;
    result.setContent(content);
    result.setHttpStatusCode(flags & 1 ? 500 : 200);
    if (flags & 2) {
        result.setError(WebServiceResult::NetworkError);
        result.setErrorString(QStringLiteral("fuzzed failure"));
    }

    MockWebSocket webSocket;
    const QString instance = QStringLiteral("00000000-0000-0000-0000-000000000001");
    {
        PlatformAuthenticator authenticator(&webSocket, instance, nullptr);
        QSignalSpy errors(&authenticator, &PlatformAuthenticator::error);
        const QString token = PlatformAuthenticatorProbe::accessToken(authenticator, result);
        FuzzSupport::check(token.isEmpty() == (errors.size() == 1) && errors.size() <= 1,
                           "access token reply: value and error disagree");
    }
    {
        PlatformAuthenticator authenticator(&webSocket, instance, nullptr);
        QSignalSpy errors(&authenticator, &PlatformAuthenticator::error);
        const QString url = PlatformAuthenticatorProbe::adbUrl(authenticator, result);
        FuzzSupport::check(url.isEmpty() == (errors.size() == 1) && errors.size() <= 1,
                           "instance details: value and error disagree");
    }
    {
        PlatformAuthenticator authenticator(&webSocket, instance, nullptr);
        QSignalSpy errors(&authenticator, &PlatformAuthenticator::error);
        QSignalSpy authenticated(&authenticator, &PlatformAuthenticator::authenticated);
        PlatformAuthenticatorProbe::textMessage(authenticator, QString::fromUtf8(content));
        FuzzSupport::check(errors.size() + authenticated.size() == 1,
                           "the token answer neither authenticated nor failed");
    }
    return 0;
}
