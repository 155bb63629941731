#pragma once

// The simulator process and the private adb server live in the shared test kit; this header
// keeps the name and the includes the simulator tests were written against.
#include "testkit.h"

#include <QDeadlineTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

using TestKit::freeLoopbackPort;
