#include "cache.h"

// Defined in this order in one translation unit, so the settings record (and
// with it "system.ini" and the output folder) exists before the camera list.
Config *Cache::config = new Config;
QList<CameraInfo> *Cache::cameras = new QList<CameraInfo>;
