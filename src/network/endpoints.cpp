#include "endpoints.h"

bool Endpoints::isRepeatable(const QString& path)
{
    // Every endpoint the daemon calls is safe to repeat: logins, token requests and reads.
    Q_UNUSED(path)
    return true;
}
