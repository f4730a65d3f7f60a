#include "bench/window.h"

#include "viewer/viewer_window.h"

void (*window_on_repaint)();

namespace viewer
{

void viewer_window_post_repaint()
{
    if (window_on_repaint)
        window_on_repaint();
}

void viewer_window_post_close()
{
}

} // namespace viewer
