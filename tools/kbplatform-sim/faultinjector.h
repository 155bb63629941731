#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>

#include <optional>

// Faults armed through the admin API and consumed by the REST server and the WebSocket
// endpoints, each one a given number of times.
class FaultInjector : public QObject
{
    Q_OBJECT

public:
    struct AuthRefusal
    {
        QString instance; // empty: any instance
        int count = 1;
        bool closeOnly = false; // close with `code` instead of answering with a JSON refusal
        int code = 1008;
        QString reason;
    };
    struct RestFault
    {
        QString path; // prefix of the request path; empty: any REST path
        int count = 1;
        int status = 500; // 0: never answer
        QByteArray body;
    };

    static constexpr int MAX_ARMED = 64;

    explicit FaultInjector(QObject* parent);
    ~FaultInjector() override;

    bool refuseAuthentications(const AuthRefusal& refusal);
    std::optional<AuthRefusal> takeAuthRefusal(const QString& instance);
    bool failRest(const RestFault& fault);
    std::optional<RestFault> takeRestFault(const QString& path);
    void clear();
    QJsonObject toJson() const;

private:
    QList<AuthRefusal> m_authRefusals;
    QList<RestFault> m_restFaults;
};
