#ifndef IMAGEPROCESSING_H
#define IMAGEPROCESSING_H

#include <QImage>
#include <QList>
#include <QMutex>
#include <QSize>
#include <QString>
#include <QThread>

#include "imaging/detection.h"
#include "imaging/frameprocessing.h"
#include "imaging/pageturn.h"
#include "imaging/perspective.h"
#include "imaging/previewpicture.h"
#include "output/photocomposition.h"
#include "currentframe.h"
#include "fittedpreview.h"
#include "looprecorder.h"
#include "readahead.h"
#include "reconnection.h"

#include <opencv2/core.hpp>
#include <opencv2/videoio.hpp>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

// The worker behind one live preview: it owns a camera, reads its frames in
// run(), has each one processed (colour mode, document outlines, rotation:
// the picture work lives in imaging/) and hands the result to the view.
// imageprocessing.cpp is the loop (reading, requests, reconfiguration,
// hand-off); imageprocessingpictures.cpp the picture work and the photo the
// class offers, handed over to imaging/ and output/. The
// GUI thread steers it through the request flags and mode codes below; they
// are atomics, so a request written by the GUI thread is seen whole by the
// loop on its next pass.
//
// Who writes and reads what is shared ("GUI" is the thread that owns the
// object, "loop" is run(), "ahead" the read of the next frame):
//
//   member                         written by        read by             guarded by
//   isWork, isRead, angle, the     GUI (loop: isRead) loop                atomic
//     mode codes, the requests
//   srcImage                       GUI (readFarme)   loop (recordVideo)  mutex
//   child1, child2, isShow1/2      GUI               loop (takePhoto)    childMutex
//   frame, current                 loop, or any by   any, by             current's mutex for
//                                  currentFrame()    currentFrame()      the swap, the decode
//                                  (the whole decode                     and the copy
//                                  put off)
//   cap                            loop, GUI while   loop, ahead         capMutex
//                                  the loop is not running
//   read                           ahead, or loop    loop                the read ahead,
//                                  when none is under way                nextRead
//   previewZoom, the preview area, GUI               ahead, loop         atomic
//     openedWidth/Height           (opened: whoever opens the camera)
//   work, preview (the picture     loop (or one      loop                one thread at a time
//     buffers and images)          caller while the loop is not reading)
//   fittedForView                  loop              GUI                 its own mutex
//   writer                         GUI (recordBegin; a recording's     its recording's writer
//                                  SetRecordVideo,   writer thread;      is finished before it
//                                  by recorder)      loop (recordVideo)  is released or replaced
//   recorder                       GUI (SetRecordVideo) loop (recordVideo) set before isCameraVideo
//                                                                        is raised
class ImageProcessing : public QThread
{
    Q_OBJECT

public:
    explicit ImageProcessing(QObject *parent = nullptr);
    ~ImageProcessing() override;

    QMutex mutex; // guards srcImage
    QImage srcImage;
    cv::VideoWriter *writer = nullptr;
    cv::VideoCapture cap;
    cv::Mat frame; // written by the loop only; other threads use currentFrame()
    std::atomic<bool> isWork{ false };
    std::atomic<bool> isRead{ false };
    std::atomic<int> driveId{ 0 };
    std::atomic<int> frameWidth{ 0 };
    std::atomic<int> frameHeight{ 0 };
    std::atomic<int> angle{ 0 };
    std::atomic<bool> isChangeCamera{ false };
    std::atomic<bool> isSetVideoPParameter{ false };
    std::atomic<bool> isTakePhoto{ false };
    std::atomic<int> cameraCurrentExposure{ 0 };
    std::atomic<int> correction_type{ 0 };
    std::atomic<int> shooting_type{ 0 };
    std::atomic<bool> perspective{ false }; // sheets by their four corners (extension)
    // While on, every frame is watched for a turned page that has come to
    // rest; pageTurnSettled() then asks for a photo (extension).
    std::atomic<bool> pageTurnSeries{ false };
    std::atomic<unsigned> pageTurnRun{ 0 }; // counts the series started
    std::atomic<bool> isTakePhotoChildCamera{ false };
    QImage child1; // with child2, guarded by childMutex
    QImage child2;
    std::atomic<bool> isShow1{ false };
    std::atomic<bool> isShow2{ false };
    std::atomic<bool> isSaveTiff{ false };
    std::atomic<bool> isCameraVideo{ false };
    std::atomic<double> cameraFps{ 0 }; // the rate the open camera delivers
    QString cameraVideoPath;

    // Opening, closing and exposure are carried out by the loop between two
    // reads: called from another thread while the loop runs, they only ask
    // for it and return at once, so the GUI thread never waits for a camera.
    void openCamara();
    void closeCamara(bool);
    void videoParameterSettings();
    void setCameraExposure(int value);
    void setCameraResolution(QSize size);
    void reConfigVideoSetting();
    void setFrameWidth(int width);
    void setFrameHeight(int height);
    void setFrameWidthAndHeight(int width, int height);

    // Photo taking: the GUI thread hands over the secondary pictures and
    // raises the request; the loop takes the photo of the frame on screen as
    // soon as it sees it (on its next pass, or while it waits for a frame).
    void setTakePhotoCammond(QImage child1, QImage child2, bool isShow1, bool isShow2);
    void setTakePhotoChildCamera(bool on);
    void setSaveImageToTiff(bool on);
    void takePhoto();

    // The thread-side recorder: while on, every pass of the loop writes the
    // last displayed picture to an MJPG AVI file at 25 frames per second.
    void SetRecordVideo(bool on, QString path);
    void recordVideo();

    static QImage MatQImage(const cv::Mat &mat);
    static cv::Mat QImageToMat(QImage image);

    // Frame processing: colour mode and, on the preview, document outlines.
    // These use the loop's working buffers: call them from one thread at a
    // time (the loop's own, or any other while the loop is not reading).
    std::vector<cv::RotatedRect> handleMat(const cv::Mat &src, cv::Mat &out, bool draw);
    QImage handleQImage(QImage image);
    void setAngle(int direction);
    void setCameraCorrection(int code);
    void setCameraShootType(int code);

    // One preview picture from a raw frame (the camera's frame reduced by
    // scaleDown): processing with outlines, then conversion and rotation.
    // What the loop emits for every frame.
    QImage previewImage(const cv::Mat &raw, int scaleDown = 1);
    // The preview picture of the last frame read, made from its whole
    // decode whatever the loop showed of it; with its own buffers, so that
    // the GUI thread may ask while the loop runs.
    QImage wholePreviewImage();

    // Document detection.
    std::vector<cv::RotatedRect> findSquares(const cv::Mat &src);
    // With perspective on, the four corners of each sheet the last search
    // returned, in its order; empty with it off.
    const std::vector<SheetQuad> &foundSheetCorners() const { return work.sheets.quads; }

    // The upright cut-out of one detected sheet: img turned about the
    // sheet's centre by the smallest angle that makes the sheet straight,
    // then the sheet's rectangle taken out. Empty for a sheet of no size.
    static cv::Mat deskewCutOut(const cv::Mat &img, const cv::RotatedRect &r);
    // The turn and the upright size deskewCutOut uses for r.
    static void uprightAngleAndSize(const cv::RotatedRect &r, float &angle, cv::Size &size);

    // A deep copy of the last frame read, safe to call from any thread.
    cv::Mat currentFrame();
    // The size of the last frame read, as the camera sent it.
    cv::Size currentFrameSize();
    // The camera's own JPEG bytes of the last frame read (a copy), with its
    // capture time and picture size; empty when the camera sends pictures
    // rather than JPEG. Safe to call from any thread.
    cv::Mat currentFrameBytes(qint64 *capturedNs, cv::Size *size);
    // Whether the open camera sends its own JPEG bytes (MJPG), which the
    // loop then decodes itself.
    std::atomic<bool> compressedFrames{ false };
    // The same, with the monotonic time the camera captured it.
    cv::Mat currentFrame(qint64 *capturedNs);
    // Frames the loop has made current so far.
    std::atomic<unsigned> framesTaken{ 0 };
    // Whether the current frame comes from the camera as it is set up now:
    // read since its last opening, with no re-configuration asked for or
    // under way. Safe to call from any thread.
    bool frameIsSettled() const;
    // Whether an opening or re-configuration is asked for or under way.
    bool openPending() const;

    // The area the preview is shown in (GUI thread): the loop scales each
    // preview picture down to its shown size before handing it over, so the
    // GUI thread only copies it to the screen. An empty area turns that off.
    void setPreviewArea(QSize area);
    // The view's zoom (GUI thread): a camera's JPEG frames are decoded for
    // the preview only as large as the view then draws them.
    void setPreviewZoom(qreal zoom);
    // The loop's shown-size copy of picture, or a null image when it made
    // none for that very picture (or for another area).
    QImage fittedPreview(const QImage &picture);
    // Makes that copy (the loop, just before handing picture over).
    void fitForPreview(const QImage &picture);

    // Smallest area, in square pixels, of a sheet worth finding or outlining.
    static constexpr float minimumSheetArea = smallestSheetArea;

signals:
    void sendFarmeSignal(QImage image);
    void sendTakePhotoImageSignal(QList<QString> files, int kind);
    void sendTakePhotoImageSignal(std::vector<QImage> images, QList<QString> files, int kind);
    void openCameraSignal();
    void closeCameraSignal();
    // The camera has gone away (unplugged); the loop waits for it to return.
    void cameraAwaySignal();
    void pageTurnSettled();

public slots:
    void readFarme(QImage image);
    void begin();
    void end();

protected:
    void run() override;

private:
    void waitForLoop(int timeoutMs);
    bool onLoopThread() const;
    void handleRequests();
    void openNow();
    void capFrameSize();
    void releaseNow();
    void applyExposure(int value);
    bool cameraGone();
    void settleReconnection(bool wanted);
    void waitForReturn();
    bool readFrame();
    unsigned readAhead();
    unsigned readFromCamera();
    void reopenWithNewSettings();
    void showFrame();
    void waitAfterNoFrame();
    void takePhotoIfAsked();
    PhotoExtras photoExtras();
    FrameModes modes() const; // the mode codes as they stand, read once

    std::mutex capMutex; // cap is opened by the GUI thread, read by the loop
    std::mutex childMutex; // child1/child2
    CameraRead read; // the loop's next frame, made current by current.takeFrom()
    // The current frame for every thread; its whole picture is frame.
    CurrentFrame current{ frame };
    // Bumped (under capMutex) whenever cap is opened or released, so that a
    // frame read ahead from a camera since closed is not shown. Starts at 1:
    // a read ahead that got nothing answers 0.
    std::atomic<unsigned> capGeneration{ 1 };
    LoopRecorder recorder; // the thread-side recording

    // Requests of other threads, carried out by the loop. Every open asked
    // for bumps openSerial; openWanted says whether the camera should be
    // open at all (a close asked after an open wins, and the other way).
    std::atomic<bool> openWanted{ false };
    std::atomic<unsigned> openSerial{ 0 };
    unsigned openSerialDone = 0; // the loop's own
    std::atomic<unsigned> openSerialDoneShared{ 0 };
    std::atomic<bool> exposurePending{ false };
    std::atomic<bool> exposureAsked{ false };
    std::atomic<bool> reopening{ false }; // the loop is closing and opening the camera
    std::atomic<unsigned> frameGeneration{ 0 }; // capGeneration the current frame was read from
    bool capOpen = false; // the loop's own: cap opened and not released since
    Reconnection reconnection; // the loop's own
    int lostCameraApi = 0; // the back end of the camera that went away

    // Per-frame working buffers of the thread that processes frames, kept
    // from one frame to the next: allocating them anew costs page faults on
    // every frame at high resolution. With perspective on, work.sheets.quads
    // holds the corners of each sheet the last search returned.
    FrameWork work;
    PreviewWork preview; // the preview picture's buffers and images

    std::atomic<int> previewAreaWidth{ 0 };
    std::atomic<int> previewAreaHeight{ 0 };
    std::atomic<double> previewZoom{ 1.0 };
    // The camera's frame size as opened, which the reduction is chosen for.
    std::atomic<int> openedWidth{ 0 };
    std::atomic<int> openedHeight{ 0 };
    PageTurnSeriesWatcher pageTurnWatcher; // used by the loop only
    FittedPreview fittedForView; // the last preview picture at its shown size

    // The read of the frame after the current one: it owns read until
    // it is taken, and answers the camera's generation it read from (0 when
    // it got nothing). Declared last, so it is waited for before the rest
    // goes.
    ReadAhead nextRead{ [this] { return readAhead(); } };
};

#endif // IMAGEPROCESSING_H
