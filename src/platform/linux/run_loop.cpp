#include "platform/run_loop.h"

#include <glib.h>

#include <memory>

#include "platform/service.h"

namespace qvk::platform {

namespace {

using Work = std::function<void()>;

gboolean RunOnce(gpointer data) {
    (*static_cast<Work*>(data))();
    return G_SOURCE_REMOVE;
}

void DestroyWork(gpointer data) { std::unique_ptr<Work>(static_cast<Work*>(data)); }

// The main thread's GLib context: the default context, which the main thread owns.
class GlibRunLoop final : public RunLoop {
public:
    void Run() override {
        for (;;) g_main_context_iteration(nullptr, TRUE);
    }

    bool RunUntil(const std::function<bool()>& done, double seconds) override {
        bool expired = false;
        auto ms = static_cast<guint>(seconds * 1000);
        guint timer = g_timeout_add(
            ms,
            [](gpointer flag) -> gboolean {
                *static_cast<bool*>(flag) = true;
                return G_SOURCE_REMOVE;
            },
            &expired);
        while (!done() && !expired) g_main_context_iteration(nullptr, TRUE);
        if (!expired) g_source_remove(timer);
        return done();
    }

    void PerformDeferred(Work work) override {
        g_idle_add_full(G_PRIORITY_DEFAULT, RunOnce, std::make_unique<Work>(std::move(work)).release(), DestroyWork);
    }

    // Always through a source: g_main_context_invoke would run the work on the calling thread
    // whenever the main thread does not hold the context at that moment.
    void PerformOnMainThread(Work work) override {
        GSource* source = g_idle_source_new();
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        g_source_set_callback(source, RunOnce, std::make_unique<Work>(std::move(work)).release(), DestroyWork);
        g_source_attach(source, g_main_context_default());
        g_source_unref(source);
    }
};

}  // namespace

template <>
RunLoop& DefaultService<RunLoop>() {
    static GlibRunLoop loop;
    return loop;
}

}  // namespace qvk::platform
