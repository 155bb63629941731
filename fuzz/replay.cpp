// Runs fuzz inputs through a fuzz target without libFuzzer, so that every input that once
// crashed stays a regression test in the normal build. Arguments: files or directories.
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        const QString argument = QString::fromLocal8Bit(argv[i]);
        QStringList files;
        if (QFileInfo(argument).isDir()) {
            QDirIterator it(argument, QDir::Files, QDirIterator::Subdirectories);
            while (it.hasNext())
                files.append(it.next());
            files.sort();
        } else if (QFileInfo::exists(argument)) {
            files.append(argument);
        }
        for (const QString& path : files) {
            QFile file(path);
            if (!file.open(QIODevice::ReadOnly)) {
                std::fprintf(stderr, "cannot read %s\n", qPrintable(path));
                return 1;
            }
            const QByteArray input = file.readAll();
            std::fprintf(stderr, "replaying %s (%lld bytes)\n", qPrintable(path), qlonglong(input.size()));
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.constData()), size_t(input.size()));
            ++replayed;
        }
    }
    std::fprintf(stderr, "%d inputs replayed\n", replayed);
    return 0;
}
