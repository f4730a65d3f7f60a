// The viewer's window, of which the benchmarks have only what the receive thread posts to.
#ifndef QV_BENCH_WINDOW_H
#define QV_BENCH_WINDOW_H

// Called at the end of each frame, on the receive thread, under frame_lock; null for none.
extern void (*window_on_repaint)();

#endif
