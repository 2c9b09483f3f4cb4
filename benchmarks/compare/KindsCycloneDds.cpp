// Cyclone DDS as Debian builds it: between processes it uses UDP.

#include <dds/dds.h>

#include <algorithm>
#include <stdexcept>

#include "Bytes.h"
#include "NamedChannels.h"

namespace qel::bench {
namespace {

constexpr dds_duration_t kLookAgain = DDS_SECS(1);
constexpr std::size_t kFewest = 4;
constexpr std::size_t kMost = 4096;

dds_entity_t Required(dds_return_t made, const char* what) {
    if (made < 0) {
        throw std::runtime_error(std::string(what) + ": " + dds_strretcode(-made));
    }
    return made;
}

/// The same name without what a topic's must not hold.
std::string TopicName(std::string name) {
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

/// A participant with a topic that loses nothing and holds back the writer.
class Participant {
public:
    Participant(const std::string& name, const Cell& cell) : qos_(dds_create_qos()) {
        const auto samples = static_cast<std::int32_t>(
            std::clamp<std::size_t>(cell.ring / cell.size, kFewest, kMost));
        dds_qset_reliability(qos_, DDS_RELIABILITY_RELIABLE, DDS_SECS(30));
        dds_qset_history(qos_, DDS_HISTORY_KEEP_ALL, 0);
        dds_qset_resource_limits(qos_, samples, DDS_LENGTH_UNLIMITED, DDS_LENGTH_UNLIMITED);
        participant_ = Required(dds_create_participant(DDS_DOMAIN_DEFAULT, nullptr, nullptr),
                                "cannot join the domain");
        topic_ = Required(dds_create_topic(participant_, &qev_bench_Bytes_desc,
                                           TopicName(name).c_str(), nullptr, nullptr),
                          "cannot make a topic");
    }
    ~Participant() {
        (void)dds_delete(participant_);
        dds_delete_qos(qos_);
    }
    Participant(const Participant&) = delete;
    Participant& operator=(const Participant&) = delete;

    [[nodiscard]] dds_entity_t MakeWriter() const {
        return Required(dds_create_writer(participant_, topic_, qos_, nullptr),
                        "cannot make a writer");
    }
    [[nodiscard]] dds_entity_t MakeReader() const {
        return Required(dds_create_reader(participant_, topic_, qos_, nullptr),
                        "cannot make a reader");
    }
    [[nodiscard]] dds_entity_t Get() const noexcept { return participant_; }

private:
    dds_qos_t* qos_;
    dds_entity_t participant_ = 0;
    dds_entity_t topic_ = 0;
};

class DdsSender final : public Sender {
public:
    DdsSender(const std::string& name, const Cell& cell)
        : participant_(name, cell), writer_(participant_.MakeWriter()) {}

    void AwaitPeer() override {
        dds_publication_matched_status_t status{};
        do {
            (void)dds_get_publication_matched_status(writer_, &status);
        } while (status.current_count == 0);
    }

    void Send(Source& source, Stamp stamp) override {
        qev_bench_Bytes message{};
        message.data._buffer = source.Stamped(stamp);
        message.data._length = static_cast<std::uint32_t>(source.Size());
        message.data._maximum = message.data._length;
        (void)Required(dds_write(writer_, &message), "cannot write");
    }

private:
    Participant participant_;
    dds_entity_t writer_;
};

class DdsReceiver final : public Receiver {
public:
    DdsReceiver(const std::string& name, const Cell& cell)
        : participant_(name, cell),
          reader_(participant_.MakeReader()),
          waiter_(Required(dds_create_waitset(participant_.Get()), "cannot wait")) {
        (void)dds_set_status_mask(reader_, DDS_DATA_AVAILABLE_STATUS);
        (void)Required(dds_waitset_attach(waiter_, reader_, 0), "cannot wait");
    }

    void AwaitPeer() override {
        dds_subscription_matched_status_t status{};
        do {
            (void)dds_get_subscription_matched_status(reader_, &status);
        } while (status.current_count == 0);
    }

    View Next() override {
        dds_sample_info_t info{};
        while (dds_take(reader_, &sample_, &info, 1, 1) <= 0 || !info.valid_data) {
            dds_attach_t woken = 0;
            (void)dds_waitset_wait(waiter_, &woken, 1, kLookAgain);
        }
        const auto* message = static_cast<const qev_bench_Bytes*>(sample_);
        return {message->data._buffer, message->data._length};
    }

    void Release() override { (void)dds_return_loan(reader_, &sample_, 1); }

private:
    Participant participant_;
    dds_entity_t reader_;
    dds_entity_t waiter_;
    void* sample_ = nullptr;
};

}  // namespace

std::vector<Kind> Kinds() {
    return {NamedKind<DdsSender, DdsReceiver>("cyclonedds")};
}

}  // namespace qel::bench
