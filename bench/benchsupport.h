#ifndef BENCHSUPPORT_H
#define BENCHSUPPORT_H

// What the application object of a benchmark program must be able to do.
enum class BenchApplication {
    Gui, // image conversion and rotation: a QGuiApplication
    Widgets, // windows and dialogs: a QApplication
    Cameras, // the capture thread and the windows against the virtual camera:
             // a QApplication, cameras opened through Video4Linux2 and the
             // output sizes listed, as the program has them after its start
};

// The main of a benchmark program: on Qt's offscreen platform, with the
// application object the benchmarks need, runs the benchmarks that the
// command line selects.
int runBenchmarks(int argc, char **argv, BenchApplication application);

// CPU seconds the whole process has used so far, every thread counted (the
// virtual camera's too, as it runs in the process): on a shared machine
// the CPU a task costs says more than the time it takes.
double processCpuSeconds();

// Runs the application's event loop for ms milliseconds as the program
// runs it, idle between events (a loop of processEvents() would spin and
// count as work).
void runEventsFor(int ms);

#endif // BENCHSUPPORT_H
