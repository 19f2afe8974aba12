#include "windowsupport.h"

#include "mainwindowqcamera.h"
#include "qcameraview.h"
#include "ui_mainwindowqcamera.h"

#include <QAbstractButton>
#include <QTest>

namespace {

constexpr int frameDeadline = 30000;

} // namespace

bool waitOpen(QCameraView *view)
{
    return QTest::qWaitFor([&] { return !view->isOpenTip && !view->m_Image.isNull(); },
                           frameDeadline);
}

bool waitOpen(MainWindowQCamera &w)
{
    return QTest::qWaitFor(
            [&] { return !w.ui->video->isOpenTip && !w.ui->video->m_Image.isNull(); },
            frameDeadline);
}

RefusedClick::RefusedClick(const ModalAnswerer &answerer, const QString &text, const QString &title)
    : answerer(answerer), text(text), title(title)
{
}

bool RefusedClick::operator()(QAbstractButton *button)
{
    QTest::mouseClick(button, Qt::LeftButton);
    ++expected;
    return QTest::qWaitFor([&] { return answerer.boxes.size() == expected; }, 5000)
            && (title.isNull() || answerer.boxes.last().title == title)
            && answerer.boxes.last().text == text;
}
