#pragma once

#include <gst/gst.h>

#include <string>

#include "ElementHandles.h"

namespace qel {

/// A pipeline that is described in words; stopped at the end.
class MediaPipeline {
public:
    /// @throws std::runtime_error when elements are missing
    explicit MediaPipeline(const std::string& description);
    ~MediaPipeline();
    MediaPipeline(const MediaPipeline&) = delete;
    MediaPipeline& operator=(const MediaPipeline&) = delete;

    /// The element `name`, the pipeline's.
    [[nodiscard]] GstElement* Get(const char* name) const;

    /// @throws std::runtime_error when it cannot be started
    void Play();

    /// @throws std::runtime_error for an error that an element has reported
    void RequireNoError() const;

    /// Waits for the end of the stream.
    /// @throws std::runtime_error for an error that an element reports
    void WaitForEnd() const;

private:
    ElementHandle pipeline_;
    BusHandle bus_;
};

}  // namespace qel
