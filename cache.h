#ifndef CACHE_H
#define CACHE_H

#include "camerainfo.h"
#include "config.h"

#include <QList>

// The process-wide objects: the settings record and the cameras found at
// start-up. Both are made during static initialisation and live as long as
// the process.
class Cache
{
public:
    static Config *config;
    static QList<CameraInfo> *cameras;
};

#endif // CACHE_H
