#include "startup.h"

#include "cache.h"

#include <QByteArray>
#include <QImageWriter>

void appendOutputSizes(QList<QSize> &sizes)
{
    // 4640x3452 is the first entry as it stands.
    sizes << QSize(4640, 3452) << QSize(4416, 3312) << QSize(3742, 2806) << QSize(3264, 2448)
          << QSize(2592, 1944) << QSize(2048, 1536) << QSize(1920, 1080) << QSize(1600, 1200)
          << QSize(1280, 960) << QSize(1280, 720) << QSize(800, 600) << QSize(640, 480);
}

void appendWritableFormats(QList<QString> &formats)
{
    const QList<QByteArray> supported = QImageWriter::supportedImageFormats();
    for (const QByteArray &format : supported)
        formats.append(QString(format));
}

void completeRunTimeSettings(const QString &programFolder)
{
    Cache::config->isLinuxOS = true;
    Cache::config->exe_path = programFolder;
    appendOutputSizes(Cache::config->resolutions);
    appendWritableFormats(Cache::config->iamge_formats);
}

QString resourcePath(const QString &relative)
{
    return Cache::config->exe_path + relative;
}
