#include "photopdf.h"

#include <QImage>
#include <QPageLayout>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>

namespace {

QPageLayout::Orientation orientationFor(const QImage &photo)
{
    // A square photo stands upright.
    return photo.width() > photo.height() ? QPageLayout::Landscape : QPageLayout::Portrait;
}

} // namespace

void writePhotoPdf(QIODevice *device, const QList<QString> &pages,
                   const std::function<void(int)> &pageStarted)
{
    QPdfWriter writer(device);
    QImage photo(pages.first());
    writer.setPageSize(QPageSize(QPageSize::A4));
    writer.setPageOrientation(orientationFor(photo));
    writer.setPageMargins(QMarginsF(0, 0, 0, 0));

    QPainter painter;
    if (!painter.begin(&writer))
        return;
    // The viewport is that of the first page; its long and short sides
    // give every page's full area whichever way the page is turned.
    const QRect viewport = painter.viewport();
    const int longSide = qMax(viewport.width(), viewport.height());
    const int shortSide = qMin(viewport.width(), viewport.height());

    for (int i = 0; i < pages.size(); ++i) {
        if (pageStarted)
            pageStarted(i);
        if (i > 0) {
            photo = QImage(pages.at(i));
            writer.setPageOrientation(orientationFor(photo));
            writer.newPage();
        }
        // Stretched edge to edge: the page takes the photo's orientation,
        // so the stretch is only the difference in aspect ratio.
        const QRect page = photo.width() > photo.height() ? QRect(0, 0, longSide, shortSide)
                                                          : QRect(0, 0, shortSide, longSide);
        painter.drawImage(page, photo);
    }
    painter.end();
}
