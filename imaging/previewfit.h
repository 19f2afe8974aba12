#ifndef IMAGING_PREVIEWFIT_H
#define IMAGING_PREVIEWFIT_H

#include "imaging/areascale.h"

#include <QImage>
#include <QSize>

#include <opencv2/core.hpp>

// The size a picture is shown at in an area: as large as fits, keeping its
// proportions, never larger than the picture itself.
QSize fittedSize(QSize picture, QSize area);

// Scales preview pictures down to the size they are shown at, looking like
// Qt's smooth scaling. Keeps its working buffers between pictures; one
// fitter serves one thread.
class PreviewFitter
{
public:
    QImage fit(const QImage &picture, QSize size);
    // The picture fitted into area by a thread that has the next frame to
    // read, or a null image for a picture four times the shown size and
    // more: the GUI thread averages those down itself (on OpenCV's worker
    // threads, at about the cost of copying them) so that this thread goes
    // on with the next frame.
    QImage fitUnlessLarge(const QImage &picture, QSize area);

private:
    QImage averagedDown(const QImage &picture, QSize size, int channels);

    cv::Mat halves[2]; // successive halvings of the picture
    AreaScaler areaScaler; // the last step, when it is more than a small one
};

#endif // IMAGING_PREVIEWFIT_H
