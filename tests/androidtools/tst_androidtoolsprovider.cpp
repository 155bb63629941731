#include "daemon/kbsaasandroidtoolsprovider.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

class tst_AndroidToolsProvider : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void adbSearchOrder_data();
    void adbSearchOrder();
    void aaptSearchOrder_data();
    void aaptSearchOrder();
    void cachedPathSearchedAgainOnceGone();
    void emptySdkPathWarnsOnEveryCall();

private:
    static void touch(const QString& sdk, const QString& relativePath)
    {
        const QString path = sdk + QLatin1Char('/') + relativePath;
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
    }
};

void tst_AndroidToolsProvider::adbSearchOrder_data()
{
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QString>("expected");

    QTest::newRow("platform-tools before tools and root")
        << QStringList { QStringLiteral("adb"), QStringLiteral("tools/adb"),
                         QStringLiteral("platform-tools/adb") }
        << QStringLiteral("platform-tools/adb");
    QTest::newRow("tools before root")
        << QStringList { QStringLiteral("adb"), QStringLiteral("tools/adb") } << QStringLiteral("tools/adb");
    QTest::newRow("sdk root") << QStringList { QStringLiteral("adb") } << QStringLiteral("adb");
    QTest::newRow("elsewhere in the sdk is not searched")
        << QStringList { QStringLiteral("build-tools/30.0.3/adb"), QStringLiteral("platform-tools/aapt") }
        << QString();
}

void tst_AndroidToolsProvider::adbSearchOrder()
{
    QFETCH(QStringList, files);
    QFETCH(QString, expected);
    QTemporaryDir sdk;
    for (const QString& file : files)
        touch(sdk.path(), file);

    if (expected.isEmpty())
        QTest::ignoreMessage(QtWarningMsg,
                             QRegularExpression(QStringLiteral("^ADB not found:.*platform-tools")));
    KbsaasAndroidToolsProvider provider(sdk.path());
    QCOMPARE(provider.getAdbPath(),
             expected.isEmpty() ? QString() : sdk.path() + QLatin1Char('/') + expected);
}

void tst_AndroidToolsProvider::aaptSearchOrder_data()
{
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<QString>("expected");

    QTest::newRow("build-tools by reversed string order, not by version")
        << QStringList { QStringLiteral("build-tools/30.0.3/aapt"), QStringLiteral("build-tools/9.0.0/aapt"),
                         QStringLiteral("platform-tools/aapt") }
        << QStringLiteral("build-tools/9.0.0/aapt");
    QTest::newRow("build-tools before platform-tools")
        << QStringList { QStringLiteral("build-tools/29.0.2/aapt"), QStringLiteral("platform-tools/aapt") }
        << QStringLiteral("build-tools/29.0.2/aapt");
    QTest::newRow("platform-tools before platforms")
        << QStringList { QStringLiteral("platform-tools/aapt"),
                         QStringLiteral("platforms/android-30/tools/aapt") }
        << QStringLiteral("platform-tools/aapt");
    QTest::newRow("platforms by reversed string order")
        << QStringList { QStringLiteral("platforms/android-10/tools/aapt"),
                         QStringLiteral("platforms/android-9/tools/aapt"),
                         QStringLiteral("build-tools/30.0.3/zipalign") }
        << QStringLiteral("platforms/android-9/tools/aapt");
    QTest::newRow("none") << QStringList { QStringLiteral("platform-tools/adb") } << QString();
}

void tst_AndroidToolsProvider::aaptSearchOrder()
{
    QFETCH(QStringList, files);
    QFETCH(QString, expected);
    QTemporaryDir sdk;
    for (const QString& file : files)
        touch(sdk.path(), file);

    if (expected.isEmpty())
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^SDK AAPT not found in")));
    KbsaasAndroidToolsProvider provider(sdk.path());
    QCOMPARE(provider.getAaptPath(),
             expected.isEmpty() ? QString() : sdk.path() + QLatin1Char('/') + expected);
}

void tst_AndroidToolsProvider::cachedPathSearchedAgainOnceGone()
{
    QTemporaryDir sdk;
    touch(sdk.path(), QStringLiteral("tools/adb"));
    touch(sdk.path(), QStringLiteral("build-tools/1.0/aapt"));
    KbsaasAndroidToolsProvider provider(sdk.path());
    QCOMPARE(provider.getAdbPath(), sdk.path() + QLatin1String("/tools/adb"));
    QCOMPARE(provider.getAaptPath(), sdk.path() + QLatin1String("/build-tools/1.0/aapt"));

    // A better candidate appearing does not matter while the cached file exists.
    touch(sdk.path(), QStringLiteral("platform-tools/adb"));
    touch(sdk.path(), QStringLiteral("build-tools/2.0/aapt"));
    QCOMPARE(provider.getAdbPath(), sdk.path() + QLatin1String("/tools/adb"));
    QCOMPARE(provider.getAaptPath(), sdk.path() + QLatin1String("/build-tools/1.0/aapt"));

    QVERIFY(QFile::remove(sdk.path() + QLatin1String("/tools/adb")));
    QVERIFY(QFile::remove(sdk.path() + QLatin1String("/build-tools/1.0/aapt")));
    QCOMPARE(provider.getAdbPath(), sdk.path() + QLatin1String("/platform-tools/adb"));
    QCOMPARE(provider.getAaptPath(), sdk.path() + QLatin1String("/build-tools/2.0/aapt"));

    QVERIFY(QFile::remove(sdk.path() + QLatin1String("/platform-tools/adb")));
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^ADB not found:")));
    QCOMPARE(provider.getAdbPath(), QString());
}

void tst_AndroidToolsProvider::emptySdkPathWarnsOnEveryCall()
{
    KbsaasAndroidToolsProvider provider { QString() };
    for (int i = 0; i < 2; ++i) {
        QTest::ignoreMessage(QtWarningMsg, "Can't use ADB from SDK: SDK path not set");
        QCOMPARE(provider.getAdbPath(), QString());
        QTest::ignoreMessage(QtWarningMsg, "Can't use AAPT from SDK: SDK path not set");
        QCOMPARE(provider.getAaptPath(), QString());
    }
}

QTEST_GUILESS_MAIN(tst_AndroidToolsProvider)
#include "tst_androidtoolsprovider.moc"
