// GStreamer's shmsink and shmsrc.

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <semaphore.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "NamedChannels.h"

namespace qel::bench {
namespace {

constexpr std::chrono::milliseconds kLookAgain{1};
constexpr std::size_t kHeadroom = 1 << 20;  // shmsink gives a block out only as a whole

std::string PathOf(const std::string& name) {
    return "/tmp/" + name + ".gst";
}

/// A pipeline that runs as long as this lives, and an element of it.
class Pipeline {
public:
    Pipeline(const std::string& description, const char* element) {
        gst_init(nullptr, nullptr);
        pipeline_ = gst_parse_launch(description.c_str(), nullptr);
        if (pipeline_ == nullptr) {
            throw std::runtime_error("GStreamer cannot make " + description);
        }
        element_ = gst_bin_get_by_name(GST_BIN(pipeline_), element);
        (void)gst_element_set_state(pipeline_, GST_STATE_PLAYING);
    }
    ~Pipeline() {
        (void)gst_element_set_state(pipeline_, GST_STATE_NULL);
        gst_object_unref(element_);
        gst_object_unref(pipeline_);
    }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    [[nodiscard]] GstElement* Element() const noexcept { return element_; }

private:
    GstElement* pipeline_ = nullptr;
    GstElement* element_ = nullptr;
};

/// Hands over the source's memory itself, and waits until shmsink has copied it.
class ShmSender final : public Sender {
public:
    ShmSender(const std::string& name, const Cell& cell)
        : pipeline_(
              "appsrc name=source format=bytes ! shmsink wait-for-connection=true sync=false "
              "enable-last-sample=false socket-path=" +
                  PathOf(name) + " shm-size=" + std::to_string(cell.ring + kHeadroom),
              "source") {
        (void)sem_init(&copied_, 0, 0);
    }
    ~ShmSender() override { (void)sem_destroy(&copied_); }

    void Send(Source& source, Stamp stamp) override {
        GstBuffer* buffer = gst_buffer_new_wrapped_full(
            GST_MEMORY_FLAG_READONLY, source.Stamped(stamp), source.Size(), 0, source.Size(), this,
            [](gpointer self) { (void)sem_post(&static_cast<ShmSender*>(self)->copied_); });
        if (gst_app_src_push_buffer(GST_APP_SRC(pipeline_.Element()), buffer) != GST_FLOW_OK) {
            throw std::runtime_error("shmsink does not take a buffer");
        }
        (void)sem_wait(&copied_);
    }

private:
    sem_t copied_{};
    Pipeline pipeline_;
};

class ShmReceiver final : public Receiver {
public:
    ShmReceiver(const std::string& name, const Cell& /*cell*/)
        : path_(AwaitSocket(PathOf(name))),
          pipeline_("shmsrc is-live=true socket-path=" + path_ +
                        " ! appsink name=sink sync=false enable-last-sample=false max-buffers=4",
                    "sink") {}

    View Next() override {
        sample_ = gst_app_sink_pull_sample(GST_APP_SINK(pipeline_.Element()));
        if (sample_ == nullptr ||
            !gst_buffer_map(gst_sample_get_buffer(sample_), &map_, GST_MAP_READ)) {
            throw std::runtime_error("shmsrc gives no buffer");
        }
        return {map_.data, map_.size};
    }

    void Release() override {
        gst_buffer_unmap(gst_sample_get_buffer(sample_), &map_);
        gst_sample_unref(sample_);
    }

private:
    static std::string AwaitSocket(std::string path) {
        while (access(path.c_str(), F_OK) == -1) {
            std::this_thread::sleep_for(kLookAgain);
        }
        return path;
    }

    std::string path_;
    Pipeline pipeline_;
    GstSample* sample_ = nullptr;
    GstMapInfo map_{};
};

}  // namespace

std::vector<Kind> Kinds() {
    return {NamedKind<ShmSender, ShmReceiver>(
        "gst-shm", [](const std::string& name) { (void)unlink(PathOf(name).c_str()); })};
}

}  // namespace qel::bench
