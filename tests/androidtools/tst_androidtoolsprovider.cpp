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
        QTest::addColumn<QStringList>("files");
        QTest::addColumn<QString>("expected");

        QTest::newRow("platform-tools before tools and root")
            << QStringList { QStringLiteral("adb"), QStringLiteral("tools/adb"),
                             QStringLiteral("platform-tools/adb") }
            << QStringLiteral("platform-tools/adb");
        QTest::newRow("tools before root")
            << QStringList { QStringLiteral("adb"), QStringLiteral("tools/adb") }
            << QStringLiteral("tools/adb");
        QTest::newRow("only those three places")
            << QStringList { QStringLiteral("build-tools/30.0.3/adb") } << QString();
    }

    void searchOrder()
    {
        QFETCH(QStringList, files);
        QFETCH(QString, expected);
        QTemporaryDir sdk;
        for (const QString& file : files)
            QVERIFY(touch(sdk.path(), file));

        if (expected.isEmpty())
            QTest::ignoreMessage(QtWarningMsg,
                                 QRegularExpression(QStringLiteral("^ADB not found: .*/platform-tools")));
        KbsaasAndroidToolsProvider provider(sdk.path());
        QCOMPARE(provider.getAdbPath(),
                 expected.isEmpty() ? QString() : sdk.path() + QLatin1Char('/') + expected);
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
