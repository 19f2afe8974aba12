#include "activebox.h"

#include <QAbstractButton>
#include <QApplication>
#include <QMessageBox>

std::optional<ShownBox> answerShownBox()
{
    auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
    if (!box || !box->isVisible())
        return std::nullopt;
    ShownBox shown{ box->windowTitle(), box->text(), {} };
    for (QAbstractButton *button : box->buttons())
        shown.buttons << button->text();
    if (QAbstractButton *ok = box->button(QMessageBox::Ok))
        ok->click();
    else
        box->reject();
    return shown;
}
