#include "fittedpreview.h"

void FittedPreview::make(const QImage &picture, QSize area)
{
    const QImage shown = fitter.fitUnlessLarge(picture, area);
    std::lock_guard<std::mutex> lock(mutex);
    fitted = shown;
    fittedKey = picture.cacheKey();
}

QImage FittedPreview::takeFor(const QImage &picture)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (fitted.isNull() || fittedKey != picture.cacheKey())
        return QImage();
    return fitted;
}
