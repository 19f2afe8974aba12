#ifndef QTTRANSLATIONS_H
#define QTTRANSLATIONS_H

class QCoreApplication;

// Installs Qt's own Simplified Chinese texts (standard buttons, the colour,
// font and file dialogs) into app, whatever language the desktop speaks,
// so that no English text reaches the operator. Returns false when Qt's
// translation catalogue is not installed.
bool installQtChineseTranslations(QCoreApplication &app);

#endif // QTTRANSLATIONS_H
