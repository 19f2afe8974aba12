#include "photooutput.h"

#include "cache.h"

#include <QColor>
#include <QDateTime>
#include <QDebug>
#include <QFont>
#include <QFontMetrics>
#include <QImage>
#include <QImageWriter>
#include <QPainter>
#include <QPen>

QString nextOutputFileName(const QString &format)
{
    return nextOutputFileName(format, QDateTime::currentDateTime());
}

QString nextOutputFileName(const QString &format, const QDateTime &now)
{
    Config *config = Cache::config;
    const QString folder = config->user_documentsLocation;
    if (config->save_type != 0) {
        const QString stamp = now.toString("yyyy_MM_dd HH_mm_ss.zzz");
        return QString("%1/%2.%3").arg(folder).arg(stamp).arg(format);
    }
    const QString name = QString("%1/%2_%3.%4")
                                 .arg(folder)
                                 .arg(config->save_prefix)
                                 .arg(config->save_number)
                                 .arg(format);
    config->save_number++;
    return name;
}

QString recordingFileName(const QDateTime &now)
{
    return QString("%1/%2.%3")
            .arg(Cache::config->user_documentsLocation)
            .arg(now.toString("yyyy_MM_dd_HH_mm_ss.zzz"))
            .arg("avi");
}

QString watermarkText()
{
    return watermarkText(QDateTime::currentDateTime());
}

QString watermarkText(const QDateTime &now)
{
    if (Cache::config->watermark_time)
        return now.toString("yyyy-MM-dd HH:mm:ss");
    return Cache::config->watermark_text;
}

void writePhoto(const QImage &image, const QString &fileName, const QString &format)
{
    QImageWriter writer(fileName, format.toUtf8());
    writer.setQuality(Cache::config->image_quality);
    // A failure is logged so that a photo lost to a full disk or a removed
    // folder leaves a trace.
    if (image.isNull())
        qDebug() << Q_FUNC_INFO << "nothing to save as" << fileName << "(empty picture)";
    else if (!writer.write(image))
        qDebug() << Q_FUNC_INFO << "could not write" << fileName << ":" << writer.errorString();
}

QColor watermarkColour()
{
    const QString name = "#" + Cache::config->watermark_color;
    return QColor::isValidColor(name) ? QColor(name) : QColor();
}

QFont watermarkFont()
{
    const Config *config = Cache::config;
    QFont font;
    font.setFamily(config->watermark_font_family);
    // A point size below 1 is refused by QFont with a warning; the font
    // then keeps its default size, as it would anyway.
    if (config->watermark_font_size > 0)
        font.setPointSize(config->watermark_font_size);
    font.setStyleName(config->watermark_font_styleName);
    font.setUnderline(config->watermark_font_underline);
    font.setStrikeOut(config->watermark_font_strikeOut);
    return font;
}

void drawWatermark(QImage &img, QPainter &p, const QString &text)
{
    const Config *config = Cache::config;

    QImage layer(img.width(), img.height(), QImage::Format_ARGB32);
    layer.fill(qRgba(255, 255, 255, 0));

    QPainter q(&layer);
    q.setRenderHint(QPainter::Antialiasing, true);
    q.setCompositionMode(QPainter::CompositionMode_DestinationOver);

    QPen pen = p.pen();
    pen.setColor(watermarkColour());
    q.setPen(pen);

    const QFont font = watermarkFont();
    q.setFont(font);

    const QRect box = QFontMetrics(font).boundingRect(text);
    const double opacity = 1.0 - config->watermark_transparency / 100.0;
    const int dx = int((config->watermark_x - 50) / 100.0 * (layer.width() - box.width()));
    const int dy = int((config->watermark_y - 50) / 100.0 * (layer.height() - box.height()));

    q.translate(dx, dy);
    q.drawText(layer.rect(), Qt::AlignCenter, text);
    q.end();

    p.setOpacity(opacity);
    p.drawImage(img.rect(), layer);
}
