#include "testkit.h"

#include "daemon/adbtunnelparser.h"
#include "daemon/configprovider.h"
#include "daemon/credentialsprovider.h"
#include "daemon/jsonreader.h"

#include <QCommandLineParser>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

class TestConfiguration : public QObject
{
    Q_OBJECT

private:
    void write(const QString& name, const QByteArray& content)
    {
        QFile file(m_dir.path() + QLatin1Char('/') + name);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(content);
    }
    QString path(const QString& name) const { return m_dir.path() + QLatin1Char('/') + name; }

    QTemporaryDir m_dir;

private Q_SLOTS:
    void init()
    {
        qunsetenv("KESTRELBOX_API_TOKEN");
        qunsetenv("KBSAAS_PROXY_USERNAME");
        qunsetenv("KBSAAS_PROXY_PASSWORD");
    }

    void configHome()
    {
        const QByteArray savedHome = qgetenv("HOME");
        qputenv("HOME", m_dir.path().toLocal8Bit());

        qputenv("KBSAAS_CONFIG_HOME", "~/cfg");
        QCOMPARE(getKbsaasConfigHomePath(), path(QStringLiteral("cfg")));
        QVERIFY(QFileInfo(path(QStringLiteral("cfg"))).isDir());

        // Unset and empty both mean the shared default, which is not created here.
        for (const bool empty : { false, true }) {
            if (empty)
                qputenv("KBSAAS_CONFIG_HOME", "");
            else
                qunsetenv("KBSAAS_CONFIG_HOME");
            QCOMPARE(getKbsaasConfigHomePath(), path(QStringLiteral(".Tarnwright/kbsaas")));
            QVERIFY(!QFileInfo::exists(path(QStringLiteral(".Tarnwright"))));
        }
        qputenv("HOME", savedHome);
        qunsetenv("KBSAAS_CONFIG_HOME");
    }

    void filesAreReadOnEveryAccess()
    {
        JsonReader reader(path(QStringLiteral("config.json")));
        ConfigProvider config(&reader);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^Couldn't open file\\.")));
        QCOMPARE(config.getAndroidSdkPath(), QString());

        write(QStringLiteral("config.json"), "{\"android-sdk-path\": \"/opt/sdk\", \"other\": 1}");
        QCOMPARE(config.getAndroidSdkPath(), QStringLiteral("/opt/sdk"));
        write(QStringLiteral("config.json"), "{\"android-sdk-path\": \"/usr/lib/android-sdk\"}");
        QCOMPARE(config.getAndroidSdkPath(), QStringLiteral("/usr/lib/android-sdk"));

        // Malformed files and files of the wrong shape read as empty, without a fuss.
        for (const QByteArray& bad :
             { QByteArray("{\"android-sdk-path\": "), QByteArray("[1,2]"), QByteArray("\xff\xfe") }) {
            write(QStringLiteral("config.json"), bad);
            QCOMPARE(config.getAndroidSdkPath(), QString());
        }
    }

    void apiTokenPrecedence()
    {
        JsonReader reader(path(QStringLiteral("auth.json")));
        CredentialsProvider credentials(&reader);
        write(QStringLiteral("auth.json"), "{\"email\": \"dev@example.com\", \"password\": \"s3cret\"}");
        QCOMPARE(credentials.getApiToken(), QString());
        QVERIFY(credentials.hasCredentials());
        QCOMPARE(credentials.getPassword(), QStringLiteral("s3cret"));

        qputenv("KESTRELBOX_API_TOKEN", "from-env");
        QCOMPARE(credentials.getApiToken(), QStringLiteral("from-env"));
        write(QStringLiteral("auth.json"), "{\"api_token\": \"from-file\"}");
        QCOMPARE(credentials.getApiToken(), QStringLiteral("from-file"));
        QVERIFY(credentials.hasApiToken());
        QVERIFY(!credentials.hasCredentials());
    }

    void authJsonReadableByOthersWarnsOnce_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("warns");
        QTest::newRow("0600") << 0600 << false;
        QTest::newRow("0400") << 0400 << false;
        QTest::newRow("0640 group") << 0640 << true;
        QTest::newRow("0604 others") << 0604 << true;
    }

    void authJsonReadableByOthersWarnsOnce()
    {
        QFETCH(int, mode);
        QFETCH(bool, warns);
        const QString file = path(QStringLiteral("auth.json"));
        QFile::remove(file); // a read-only one from the previous row
        write(QStringLiteral("auth.json"), "{\"api_token\": \"tok\", \"email\": \"dev@example.com\"}");
        QCOMPARE(::chmod(QFile::encodeName(file).constData(), mode_t(mode)), 0);
        JsonReader reader(file);
        CredentialsProvider credentials(&reader);
        const QString warning
            = QStringLiteral("%1 holds your credentials and other users of this machine can "
                             "read it; run: chmod 600 %1")
                  .arg(file);
        if (warns)
            QTest::ignoreMessage(QtWarningMsg, qPrintable(warning));
        QTest::failOnWarning(QRegularExpression(QStringLiteral("chmod 600")));
        // Still used, and read again on every access without repeating the warning.
        QCOMPARE(credentials.getApiToken(), QStringLiteral("tok"));
        QCOMPARE(credentials.getEmail(), QStringLiteral("dev@example.com"));
        QCOMPARE(credentials.getApiToken(), QStringLiteral("tok"));
    }

    void sharedConfigHomeWarns_data()
    {
        QTest::addColumn<int>("homeMode");
        QTest::addColumn<int>("tmpMode");
        QTest::addColumn<QStringList>("warned");
        QTest::newRow("private") << 0700 << 0700 << QStringList {};
        QTest::newRow("readable only") << 0755 << 0755 << QStringList {};
        QTest::newRow("home world-writable") << 01777 << 0700 << QStringList { QString() };
        QTest::newRow("tmp group-writable") << 0700 << 0770 << QStringList { QStringLiteral("/tmp") };
        QTest::newRow("both") << 0777 << 0777 << QStringList { QString(), QStringLiteral("/tmp") };
    }

    void sharedConfigHomeWarns()
    {
        QFETCH(int, homeMode);
        QFETCH(int, tmpMode);
        QFETCH(QStringList, warned);
        QTemporaryDir home;
        QVERIFY(QDir(home.path()).mkdir(QStringLiteral("tmp")));
        QCOMPARE(::chmod(QFile::encodeName(home.path()).constData(), mode_t(homeMode)), 0);
        QCOMPARE(
            ::chmod(QFile::encodeName(home.path() + QStringLiteral("/tmp")).constData(), mode_t(tmpMode)), 0);
        for (const QString& suffix : warned) {
            QTest::ignoreMessage(
                QtWarningMsg,
                qPrintable(QStringLiteral("%1 is writable by other users of this machine, who "
                                          "can replace the files in it; run: chmod 700 %1")
                               .arg(home.path() + suffix)));
        }
        QTest::failOnWarning(QRegularExpression(QStringLiteral("chmod 700")));
        warnIfConfigHomeIsShared(home.path());
        QCOMPARE(TestKit::fileMode(home.path()), homeMode); // reported, not changed
    }

    void proxyUrl_data()
    {
        QTest::addColumn<QByteArray>("config");
        QTest::addColumn<QByteArray>("user");
        QTest::addColumn<QByteArray>("password");
        QTest::addColumn<QString>("expected");
        QTest::newRow("none") << QByteArray("{}") << QByteArray() << QByteArray() << QString();
        QTest::newRow("socks5") << QByteArray("{\"proxy\": \"socks5://127.0.0.1:1080\"}") << QByteArray()
                                << QByteArray() << "socks5://127.0.0.1:1080";
        QTest::newRow("credentials from env")
            << QByteArray("{\"proxy\": \"socks5://u:p@127.0.0.1:1080\"}") << QByteArray("env user")
            << QByteArray("p@ss:w") << "socks5://env%20user:p%40ss:w@127.0.0.1:1080";
        QTest::newRow("empty env keeps url credentials")
            << QByteArray("{\"proxy\": \"http://u:p@127.0.0.1:3128\"}") << QByteArray("") << QByteArray("")
            << "http://u:p@127.0.0.1:3128";
        QTest::newRow("invalid") << QByteArray("{\"proxy\": \"http://exa mple.com:80\"}") << QByteArray()
                                 << QByteArray() << QString();
    }

    void proxyUrl()
    {
        QFETCH(QByteArray, config);
        QFETCH(QByteArray, user);
        QFETCH(QByteArray, password);
        QFETCH(QString, expected);
        write(QStringLiteral("config.json"), config);
        if (!user.isNull())
            qputenv("KBSAAS_PROXY_USERNAME", user);
        if (!password.isNull())
            qputenv("KBSAAS_PROXY_PASSWORD", password);
        JsonReader reader(path(QStringLiteral("config.json")));
        const QUrl url = ConfigProvider(&reader).getProxyUrl();
        QCOMPARE(url.toString(QUrl::FullyEncoded), expected);
        if (!user.isEmpty()) {
            QCOMPARE(url.userName(), QString::fromLatin1(user));
            QCOMPARE(url.password(), QString::fromLatin1(password));
        }
    }

    void commandLine_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QVariantMap>("expected");
        const QVariantMap bad;
        QTest::newRow("wrong case") << QStringList { QStringLiteral("START") } << bad;
        QTest::newRow("start ignores extras")
            << QStringList { QStringLiteral("start"), QStringLiteral("x") }
            << QVariantMap { { QStringLiteral("command"), QStringLiteral("start") } };
        QTest::newRow("disconnect") << QStringList { QStringLiteral("disconnect"), QStringLiteral("abc") }
                                    << QVariantMap { { QStringLiteral("command"),
                                                       QStringLiteral("disconnect") },
                                                     { QStringLiteral("id"), QStringLiteral("abc") } };
        const QVariantMap connectAbc { { QStringLiteral("command"), QStringLiteral("connect") },
                                       { QStringLiteral("id"), QStringLiteral("abc") } };
        QVariantMap withPort = connectAbc;
        withPort.insert(QStringLiteral("adb-serial-port"), 5555);
        QVariantMap withZero = connectAbc;
        withZero.insert(QStringLiteral("adb-serial-port"), 0);
        for (const char* dropped : { "70000", "-1", "+80", "abc", "0x50", "" }) {
            QTest::addRow("connect port %s dropped", dropped)
                << QStringList { QStringLiteral("connect"), QStringLiteral("abc"),
                                 QStringLiteral("--adb-serial-port"), QString::fromLatin1(dropped) }
                << connectAbc;
        }
        QTest::newRow("connect port") << QStringList { QStringLiteral("connect"), QStringLiteral("abc"),
                                                       QStringLiteral("--adb-serial-port=5555") }
                                      << withPort;
        QTest::newRow("connect port 0")
            << QStringList { QStringLiteral("connect"), QStringLiteral("abc"),
                             QStringLiteral("--adb-serial-port"), QStringLiteral("0") }
            << withZero;
    }

    void commandLine()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QVariantMap, expected);
        arguments.prepend(QStringLiteral("kbadbtunneld"));
        QCommandLineParser parser;
        AdbTunnelParser::setupParser(&parser, arguments);
        QVERIFY2(parser.parse(arguments), qPrintable(parser.errorText()));
        QCOMPARE(AdbTunnelParser::getMessageFromParser(parser), expected);
    }
};

QTEST_GUILESS_MAIN(TestConfiguration)
#include "tst_configuration.moc"
