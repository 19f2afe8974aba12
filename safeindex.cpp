#include "safeindex.h"

#include "cache.h"

int validCameraIndex(int index)
{
    if (index >= 0 && index < Cache::cameras->size())
        return index;
    return 0;
}

const CameraInfo *cameraAt(int index)
{
    if (Cache::cameras->isEmpty())
        return nullptr;
    return &Cache::cameras->at(validCameraIndex(index));
}

QSize sizeAtOrFirst(const QList<QSize> &sizes, int index)
{
    if (sizes.isEmpty())
        return QSize();
    if (index >= 0 && index < sizes.size())
        return sizes.at(index);
    return sizes.first();
}

QSize captureSizeOf(int cameraIndex)
{
    const CameraInfo *camera = cameraAt(cameraIndex);
    if (!camera)
        return QSize();
    return sizeAtOrFirst(camera->supportedResolutions, Cache::config->image_resolution);
}

QSize currentCaptureSize()
{
    return captureSizeOf(Cache::config->camera_index);
}

QSize outputSizeAt(int index)
{
    return sizeAtOrFirst(Cache::config->resolutions, index);
}
