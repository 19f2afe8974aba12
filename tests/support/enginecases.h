// The base of the test classes that drive the capture engine's picture work
// directly: one engine for all their cases, set back before each.
#ifndef ENGINECASES_H
#define ENGINECASES_H

#include "threads/imageprocessing.h"

#include <QObject>

class EngineCases : public QObject
{
    Q_OBJECT

protected:
    ImageProcessing ip; // one for all: it waits a moment when destroyed

private slots:
    // Before each case: the whole frame, in colour, unturned.
    void init();
};

#endif // ENGINECASES_H
