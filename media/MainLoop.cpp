#include "media/MainLoop.h"

#include <glib.h>

#include <utility>

namespace vexalive {

void callOnMainLoop(std::function<void()> task) {
    using Task = std::function<void()>;
    g_idle_add_full(
        G_PRIORITY_DEFAULT,
        [](gpointer userData) -> gboolean {
            (*static_cast<Task*>(userData))();
            return G_SOURCE_REMOVE;
        },
        new Task(std::move(task)), [](gpointer userData) { delete static_cast<Task*>(userData); });
}

void Timer::start(std::chrono::milliseconds delay, std::function<void()> task) {
    cancel();
    mTask = std::move(task);
    mSource = g_timeout_add(static_cast<guint>(delay.count()), onDue, this);
}

void Timer::cancel() {
    if (mSource != 0) {
        g_source_remove(mSource);
        mSource = 0;
    }
}

int Timer::onDue(void* self) {
    Timer& timer = *static_cast<Timer*>(self);
    timer.mSource = 0;
    const std::function<void()> task = std::move(timer.mTask);  // the task may destroy the timer
    task();
    return G_SOURCE_REMOVE;
}

}  // namespace vexalive
