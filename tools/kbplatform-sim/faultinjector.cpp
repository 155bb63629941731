#include "faultinjector.h"

#include <QJsonArray>

FaultInjector::FaultInjector(QObject* parent)
    : QObject(parent)
{ }

FaultInjector::~FaultInjector() = default;

bool FaultInjector::refuseAuthentications(const AuthRefusal& refusal)
{
    if (m_authRefusals.size() >= MAX_ARMED)
        return false;
    if (refusal.count > 0)
        m_authRefusals.append(refusal);
    return true;
}

std::optional<FaultInjector::AuthRefusal> FaultInjector::takeAuthRefusal(const QString& instance)
{
    for (qsizetype i = 0; i < m_authRefusals.size(); ++i) {
        AuthRefusal& refusal = m_authRefusals[i];
        if (!refusal.instance.isEmpty() && refusal.instance != instance)
            continue;
        const AuthRefusal taken = refusal;
        if (--refusal.count <= 0)
            m_authRefusals.removeAt(i);
        return taken;
    }
    return std::nullopt;
}

bool FaultInjector::failRest(const RestFault& fault)
{
    if (m_restFaults.size() >= MAX_ARMED)
        return false;
    if (fault.count > 0)
        m_restFaults.append(fault);
    return true;
}

std::optional<FaultInjector::RestFault> FaultInjector::takeRestFault(const QString& path)
{
    for (qsizetype i = 0; i < m_restFaults.size(); ++i) {
        RestFault& fault = m_restFaults[i];
        if (!path.startsWith(fault.path))
            continue;
        const RestFault taken = fault;
        if (--fault.count <= 0)
            m_restFaults.removeAt(i);
        return taken;
    }
    return std::nullopt;
}

void FaultInjector::clear()
{
    m_authRefusals.clear();
    m_restFaults.clear();
}

QJsonObject FaultInjector::toJson() const
{
    QJsonArray refusals;
    for (const AuthRefusal& refusal : m_authRefusals) {
        refusals.append(QJsonObject {
            { QStringLiteral("instance_uuid"), refusal.instance },
            { QStringLiteral("count"), refusal.count },
            { QStringLiteral("mode"), refusal.closeOnly ? QStringLiteral("close") : QStringLiteral("json") },
            { QStringLiteral("code"), refusal.code },
            { QStringLiteral("reason"), refusal.reason } });
    }
    QJsonArray restFaults;
    for (const RestFault& fault : m_restFaults) {
        restFaults.append(QJsonObject { { QStringLiteral("path"), fault.path },
                                        { QStringLiteral("count"), fault.count },
                                        { QStringLiteral("status"), fault.status } });
    }
    return QJsonObject { { QStringLiteral("auth_refusals"), refusals },
                         { QStringLiteral("rest_faults"), restFaults } };
}
