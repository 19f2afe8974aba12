#include "qttranslations.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QTranslator>

bool installQtChineseTranslations(QCoreApplication &app)
{
    // Named explicitly rather than through the system locale: the operator's
    // desktop may be set to any language, the program always speaks Chinese.
    auto *translator = new QTranslator(&app);
    if (!translator->load(QStringLiteral("qtbase_zh_CN"),
                          QLibraryInfo::location(QLibraryInfo::TranslationsPath))) {
        delete translator;
        return false;
    }
    return app.installTranslator(translator);
}
