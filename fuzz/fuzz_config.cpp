// The settings file as anything may have left it: arbitrary bytes in
// "system.ini", loaded, then every index setting looked up.
#include "cache.h"
#include "config.h"
#include "safeindex.h"

#include <QDir>
#include <QtGlobal>
#include <QFile>
#include <QTemporaryDir>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The settings file is looked for in the working directory.
    // Qt's warnings about odd values are expected here and only slow the run.
    static const bool quiet = [] {
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
        return true;
    }();
    (void)quiet;
    static QTemporaryDir *dir = [] {
        auto *d = new QTemporaryDir;
        QDir::setCurrent(d->path());
        return d;
    }();
    (void)dir;
    {
        QFile file(QStringLiteral("system.ini"));
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return 0;
        file.write(reinterpret_cast<const char *>(data), qint64(size));
    }
    Config config;
    config.load();
    (void)outputSizeAt(config.image_out_resolution);
    (void)outputSizeAt(config.painting_main_resolution);
    (void)outputSizeAt(config.painting_other_resolution);
    (void)captureSizeOf(config.camera_index);
    (void)validCameraIndex(config.camera_index);
    return 0;
}
