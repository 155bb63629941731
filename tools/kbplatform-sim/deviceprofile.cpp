#include "deviceprofile.h"

#include <QFile>

namespace {

// The package service of "cmd" over the toy package manager "pm" (same database). A streamed
// install carries no file name: the package is named by a "package=NAME" line near the start of
// the APK, or else after the APK's checksum.
constexpr char CMD_SCRIPT[] = R"SH(#!/bin/sh
# cmd of the emulated device
service="$1"
case "$service" in
package) shift ;;
"") echo "cmd: no service specified" >&2; exit 20 ;;
*) echo "cmd: Can't find service: $service" >&2; exit 20 ;;
esac
[ "$1" = install ] || exec pm "$@"
size=
prev=
for a in "$@"; do [ "$prev" = -S ] && size="$a"; prev="$a"; done
[ -n "$size" ] || exec pm "$@"
apk=$(mktemp) || exit 1
head -c "$size" > "$apk"
got=$(wc -c < "$apk")
if [ "$got" -ne "$size" ]; then
  rm -f "$apk"; echo "Failure [INSTALL_FAILED_INVALID_APK: $got of $size bytes received]"; exit 1
fi
name=$(head -c 4096 "$apk" | tr -c 'A-Za-z0-9._=' '\n' | sed -n 's/^package=//p' | head -n 1)
[ -n "$name" ] || name="sim.apk.$(cksum < "$apk" | cut -d' ' -f1)"
rm -f "$apk"
db="$PWD/.installed-packages"
touch "$db"
grep -qx "package:$name" "$db" || echo "package:$name" >> "$db"
echo Success
)SH";

constexpr char REMOUNT_SCRIPT[]
    = "#!/bin/sh\necho \"remount: not supported on the emulated device\" >&2\nexit 1\n";

} // namespace

QByteArray DeviceProfile::features(DeviceDialect dialect)
{
    if (dialect == DeviceDialect::Legacy) {
        // Without shell_v2, stat_v2 or ls_v2 the host uses plain "shell:" and the classic sync
        // requests; fixed_push_mkdir because SEND creates missing directories.
        return "fixed_push_mkdir";
    }
    // What an Android 14 device advertises, less what this device does not do: sendrecv_v2 and
    // its compression variants (no host here speaks it), track_app (no app processes to track).
    return "shell_v2,cmd,stat_v2,ls_v2,fixed_push_mkdir,apex,abb,fixed_push_symlink_timestamp,abb_exec,"
           "remount_shell,openscreen_mdns,delayed_ack";
}

QByteArray DeviceProfile::cnxnBanner() const
{
    QByteArray result = banner;
    const qsizetype start = result.indexOf("features=");
    if (start < 0) {
        if (!result.isEmpty() && !result.endsWith(':') && !result.endsWith(';'))
            result += ';';
        return result + "features=" + features(dialect);
    }
    const qsizetype valueStart = start + qsizetype(sizeof("features=") - 1);
    qsizetype end = result.indexOf(';', valueStart);
    if (end < 0)
        end = result.size();
    return result.replace(valueStart, end - valueStart, features(dialect));
}

bool DeviceProfile::writeTools(const QString& binDir, QString* error)
{
    for (const auto& [name, text] :
         { std::pair { "cmd", CMD_SCRIPT }, std::pair { "remount", REMOUNT_SCRIPT } }) {
        QFile file(binDir + QLatin1Char('/') + QLatin1String(name));
        const QByteArray bytes(text);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size()) {
            *error = QStringLiteral("cannot write %1: %2").arg(file.fileName(), file.errorString());
            return false;
        }
        file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup
                            | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther);
    }
    return true;
}
