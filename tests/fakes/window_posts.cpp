#include "tests/fakes/window_posts.h"

#include "viewer/viewer_window.h"

uint32_t posted_repaints, posted_closes;

namespace viewer
{

void viewer_window_post_repaint()
{
    posted_repaints++;
}

void viewer_window_post_close()
{
    posted_closes++;
}

} // namespace viewer
