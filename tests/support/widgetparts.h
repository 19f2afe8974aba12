#ifndef WIDGETPARTS_H
#define WIDGETPARTS_H

#include <QObject>

// A part of a dialog's form, found by its object name; a missing part ends
// the test program at once, naming what was looked for.
template<class T>
T *part(const QObject &dlg, const char *name)
{
    T *found = dlg.findChild<T *>(name);
    if (!found)
        qFatal("the dialog has no %s named %s", T::staticMetaObject.className(), name);
    return found;
}

#endif // WIDGETPARTS_H
