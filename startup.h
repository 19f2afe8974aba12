#ifndef STARTUP_H
#define STARTUP_H

#include <QList>
#include <QSize>
#include <QString>

// The run-time lists of the settings record, filled once at start-up.

// The twelve output sizes offered for saved photos, largest first.
void appendOutputSizes(QList<QSize> &sizes);

// Every image format the image writer can produce here, in its own order.
void appendWritableFormats(QList<QString> &formats);

#endif // STARTUP_H
