#ifndef PHOTOPDF_H
#define PHOTOPDF_H

#include <QList>
#include <QString>

#include <functional>

class QIODevice;

// The PDF made of photos: one A4 page per photo, in the photo's orientation,
// the photo stretched edge to edge. pageStarted, when given, is called with
// the page's index before each page is drawn. A photo that cannot be read
// leaves its page blank.
void writePhotoPdf(QIODevice *device, const QList<QString> &pages,
                   const std::function<void(int)> &pageStarted = {});

#endif // PHOTOPDF_H
