#include "photocomposition.h"

#include "cache.h"
#include "imaging/detection.h"
#include "imaging/frameconversion.h"
#include "modecodes.h"
#include "output/photooutput.h"
#include "safeindex.h"

#include <QPainter>

#include <utility>

QList<QImage> photoImages(const cv::Mat &processed, const std::vector<cv::RotatedRect> &sheets,
                          const std::vector<SheetQuad> &quads, int correction, int quarterTurns,
                          const PhotoExtras &extras)
{
    QList<QImage> images;
    if (correction == Correction::None) {
        QImage main = matToImage(processed);
        const QSize outSize = outputSizeAt(Cache::config->image_out_resolution);
        // Without a list of output sizes the photo keeps the camera's size.
        if (outSize.isValid())
            main = main.scaled(outSize, Qt::KeepAspectRatio, Qt::SmoothTransformation);
        images.append(turnedImage(main, quarterTurns));
    } else if (correction == Correction::Single || correction == Correction::Several) {
        const bool flatten = quads.size() == sheets.size();
        for (size_t i = 0; i < sheets.size(); ++i) {
            const cv::Mat sheet = flatten ? flattenSheet(processed, quads[i], sheets[i])
                                          : deskewCutOut(processed, sheets[i]);
            images.append(turnedImage(matToImage(sheet), quarterTurns));
        }
    }
    if ((extras.show1 || extras.show2) && !extras.insets) {
        if (extras.show1)
            images.append(extras.first);
        if (extras.show2)
            images.append(extras.second);
    }
    return images;
}

void paintPhoto(QImage &image, const PhotoExtras &extras)
{
    const QString text = watermarkText();
    const bool anyInset = extras.insets
            && ((extras.show1 && !extras.first.isNull())
                || (extras.show2 && !extras.second.isNull()));
    if (image.isNull() || (text.isEmpty() && !anyInset))
        return;
    // A grey photo has a colour table, on which nothing can be painted: it
    // takes its watermark and insets as a colour picture of the same greys.
    if (image.format() == QImage::Format_Indexed8)
        image = image.convertToFormat(QImage::Format_RGB888);

    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing, true);
    p.setCompositionMode(QPainter::CompositionMode_SourceOver);
    if (!text.isEmpty())
        drawWatermark(image, p, text);
    if (extras.insets) {
        p.setOpacity(1.0);
        // Both insets sit at the top-left corner, the second over the first.
        for (const auto &[inset, shown] : { std::make_pair(extras.first, extras.show1),
                                            std::make_pair(extras.second, extras.show2) }) {
            if (!shown || inset.isNull())
                continue;
            const int w = int(Cache::config->painting_percentage / 100.0 * image.width());
            const int h = int(double(w) / inset.width() * inset.height());
            p.drawImage(QRect(0, 0, w, h), inset);
        }
    }
    p.end();
}
