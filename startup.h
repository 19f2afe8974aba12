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

// Completes the settings record for a run of the program found in
// programFolder (its pictures lie in Resources/ there): the folder, the
// system and both lists above.
void completeRunTimeSettings(const QString &programFolder);

// The path of a file that comes with the program, given relative to the
// program's folder ("/Resources/...").
QString resourcePath(const QString &relative);

#endif // STARTUP_H
