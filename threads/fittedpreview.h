#ifndef FITTEDPREVIEW_H
#define FITTEDPREVIEW_H

#include "imaging/previewfit.h"

#include <QImage>
#include <QSize>

#include <mutex>

// The preview picture at the size the view shows it, made by the capture
// loop just before it hands the picture over, so that the GUI thread only
// copies it to the screen. The view takes it only for the very picture it
// was made from: a picture handed over since, or one the loop left to the
// view (four times the shown size and more), finds none.
class FittedPreview
{
public:
    // The loop: fits picture into area (an empty area makes none).
    void make(const QImage &picture, QSize area);
    // Any thread: the copy made from picture, or a null image.
    QImage takeFor(const QImage &picture);

private:
    PreviewFitter fitter; // the loop's own
    std::mutex mutex; // fitted and fittedKey
    QImage fitted;
    qint64 fittedKey = 0; // cacheKey() of the picture it was made from
};

#endif // FITTEDPREVIEW_H
