#ifndef OUTPUTFILES_H
#define OUTPUTFILES_H

#include <QColor>
#include <QImage>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

// The names of the files in folder, sorted by name.
QStringList filesIn(const QString &folder);

// The picture in the file name, as read; converted to format unless that is
// Format_Invalid. A null image, with a warning, when it cannot be read.
QImage readBack(const QString &name, QImage::Format format = QImage::Format_Invalid);

// The folders of a test that hands pictures to the program and reads back
// what it writes: a fresh temporary folder holding "out", where the program
// writes, and "photos", where the test puts its pictures.
struct OutputFolders
{
    std::unique_ptr<QTemporaryDir> dir;
    QString folder; // the output folder
    QString photos; // where the test's photos lie

    // Makes the folders anew and sets the files the program writes as
    // useNumberedOutput does, in the given format (image_codec). False when a
    // folder cannot be made.
    bool makeFresh(const QString &codec);
};

// Settings for files the program writes: into folder, named IMG_1, IMG_2,
// ..., photos in codec (image_codec) of quality 95.
void useNumberedOutput(const QString &folder, const QString &codec = "jpg");

// Red, green and blue of a colour as "(r,g,b)", for failure messages.
QString rgb(QRgb c);

// Whether red, green and blue of a and b differ by tolerance at most (a
// QRgb given as b counts without its alpha).
bool near(QRgb a, const QColor &b, int tolerance);

#endif // OUTPUTFILES_H
