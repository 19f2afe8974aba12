#include "outputfiles.h"

#include "cache.h"
#include "config.h"

#include <QDebug>
#include <QDir>
#include <QImageReader>

#include <cstdlib>

QStringList filesIn(const QString &folder)
{
    return QDir(folder).entryList(QDir::Files | QDir::NoDotAndDotDot, QDir::Name);
}

QImage readBack(const QString &name, QImage::Format format)
{
    QImageReader reader(name);
    const QImage img = reader.read();
    if (img.isNull())
        qWarning() << "could not read" << name << reader.errorString();
    return format == QImage::Format_Invalid ? img : img.convertToFormat(format);
}

bool OutputFolders::makeFresh(const QString &codec)
{
    dir.reset(new QTemporaryDir);
    if (!dir->isValid())
        return false;
    folder = dir->path() + "/out";
    photos = dir->path() + "/photos";
    if (!QDir().mkpath(folder) || !QDir().mkpath(photos))
        return false;
    useNumberedOutput(folder, codec);
    return true;
}

void useNumberedOutput(const QString &folder, const QString &codec)
{
    Config *c = Cache::config;
    c->user_documentsLocation = folder;
    c->save_type = 0;
    c->save_prefix = "IMG";
    c->save_number = 1;
    c->image_codec = codec;
    c->image_quality = 95;
}

QString rgb(QRgb c)
{
    return QString("(%1,%2,%3)").arg(qRed(c)).arg(qGreen(c)).arg(qBlue(c));
}

bool near(QRgb a, const QColor &b, int tolerance)
{
    return std::abs(qRed(a) - b.red()) <= tolerance && std::abs(qGreen(a) - b.green()) <= tolerance
            && std::abs(qBlue(a) - b.blue()) <= tolerance;
}
