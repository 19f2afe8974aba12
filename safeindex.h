#ifndef SAFEINDEX_H
#define SAFEINDEX_H

#include <QList>
#include <QSize>

class CameraInfo;

// The settings file may hold any number in its index fields (hand-edited,
// or written for another machine with other cameras). Every lookup by such an
// index goes through these helpers, so that an odd value picks a sensible
// entry instead of reading past the end of a list.

// A valid index into Cache::cameras: the index itself when it is in range,
// otherwise 0 (the first camera).
int validCameraIndex(int index);

// The camera that index refers to after the fallback above; nullptr only
// while no camera has been found.
const CameraInfo *cameraAt(int index);

// sizes[index] when in range, otherwise the list's first entry; an invalid
// QSize when the list is empty, meaning "keep the camera's own size".
QSize sizeAtOrFirst(const QList<QSize> &sizes, int index);

// The capture size chosen by image_resolution for the camera at cameraIndex,
// with both fallbacks applied.
QSize captureSizeOf(int cameraIndex);

// The same for the camera chosen by camera_index.
QSize currentCaptureSize();

// An entry of Config::resolutions chosen by one of its index settings.
QSize outputSizeAt(int index);

#endif // SAFEINDEX_H
