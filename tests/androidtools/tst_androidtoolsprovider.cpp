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
    void searchOrder_data()
    {
        QTest::addColumn<bool>("aapt");
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<QString>("expected");

        QTest::newRow("adb: platform-tools before tools and root")
            << false
            << QStringList { QStringLiteral("adb"), QStringLiteral("tools/adb"),
                             QStringLiteral("platform-tools/adb") }
            << QStringLiteral("platform-tools/adb");
        QTest::newRow("adb: tools before root")
            << false << QStringList { QStringLiteral("adb"), QStringLiteral("tools/adb") }
            << QStringLiteral("tools/adb");
        QTest::newRow("adb: only those three places")
            << false << QStringList { QStringLiteral("build-tools/30.0.3/adb") } << QString();
        QTest::newRow("aapt: build-tools by reversed string order, not by version")
            << true
            << QStringList { QStringLiteral("build-tools/30.0.3/aapt"),
                             QStringLiteral("build-tools/9.0.0/aapt"), QStringLiteral("platform-tools/aapt") }
            << QStringLiteral("build-tools/9.0.0/aapt");
        QTest::newRow("aapt: platform-tools before platforms")
            << true
            << QStringList { QStringLiteral("platform-tools/aapt"),
                             QStringLiteral("platforms/android-30/tools/aapt") }
            << QStringLiteral("platform-tools/aapt");
        QTest::newRow("aapt: platforms by reversed string order")
            << true
            << QStringList { QStringLiteral("platforms/android-10/tools/aapt"),
                             QStringLiteral("platforms/android-9/tools/aapt") }
            << QStringLiteral("platforms/android-9/tools/aapt");
        QTest::newRow("aapt: none") << true << QStringList { QStringLiteral("build-tools/30.0.3/zipalign") }
                                    << QString();
    }

    void searchOrder()
    {
        QFETCH(bool, aapt);
        QFETCH(QStringList, files);
        QFETCH(QString, expected);
        QTemporaryDir sdk;
        for (const QString& file : files)
            QVERIFY(touch(sdk.path(), file));

        if (expected.isEmpty())
            QTest::ignoreMessage(
                QtWarningMsg,
                QRegularExpression(aapt ? QStringLiteral("^SDK AAPT not found in .*/platform-tools")
                                        : QStringLiteral("^ADB not found: .*/platform-tools")));
        KbsaasAndroidToolsProvider provider(sdk.path());
        const QString found = aapt ? provider.getAaptPath() : provider.getAdbPath();
        QCOMPARE(found, expected.isEmpty() ? QString() : sdk.path() + QLatin1Char('/') + expected);
    }

    void cachedPathSearchedAgainOnceGone()
    {
        QTemporaryDir sdk;
        const QString tools = sdk.path() + QLatin1String("/tools/adb");
        const QString platformTools = sdk.path() + QLatin1String("/platform-tools/adb");
        QVERIFY(touch(sdk.path(), QStringLiteral("tools/adb")));
        KbsaasAndroidToolsProvider provider(sdk.path());
        QCOMPARE(provider.getAdbPath(), tools);

        // A better candidate does not matter while the cached file exists.
        QVERIFY(touch(sdk.path(), QStringLiteral("platform-tools/adb")));
        QCOMPARE(provider.getAdbPath(), tools);

        QVERIFY(QFile::remove(tools));
        QCOMPARE(provider.getAdbPath(), platformTools);
        QVERIFY(QFile::remove(platformTools));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^ADB not found:")));
        QCOMPARE(provider.getAdbPath(), QString());
    }

    void emptySdkPathWarnsOnEveryCall()
    {
        KbsaasAndroidToolsProvider provider { QString() };
        for (int i = 0; i < 2; ++i) {
            QTest::ignoreMessage(QtWarningMsg, "Can't use ADB from SDK: SDK path not set");
            QCOMPARE(provider.getAdbPath(), QString());
            QTest::ignoreMessage(QtWarningMsg, "Can't use AAPT from SDK: SDK path not set");
            QCOMPARE(provider.getAaptPath(), QString());
        }
    }

private:
    static bool touch(const QString& sdk, const QString& relativePath)
    {
        const QString path = sdk + QLatin1Char('/') + relativePath;
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile file(path);
        return file.open(QIODevice::WriteOnly);
    }
};

QTEST_GUILESS_MAIN(tst_AndroidToolsProvider)
#include "tst_androidtoolsprovider.moc"
