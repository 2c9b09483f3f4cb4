// Fast DDS between processes: through the queues of its shared-memory transport, and by
// data-sharing, where the writer's history lies in shared memory and the reader looks at it there.

#include <fastdds/rtps/transport/shared_mem/SharedMemTransportDescriptor.h>

#include <algorithm>
#include <cstring>
#include <fastdds/dds/core/LoanableSequence.hpp>
#include <fastdds/dds/domain/DomainParticipant.hpp>
#include <fastdds/dds/domain/DomainParticipantFactory.hpp>
#include <fastdds/dds/publisher/DataWriter.hpp>
#include <fastdds/dds/publisher/Publisher.hpp>
#include <fastdds/dds/subscriber/DataReader.hpp>
#include <fastdds/dds/subscriber/SampleInfo.hpp>
#include <fastdds/dds/subscriber/Subscriber.hpp>
#include <fastdds/dds/topic/TopicDataType.hpp>
#include <stdexcept>

#include "Clock.h"
#include "NamedChannels.h"

namespace qel::bench {
namespace {

namespace dds = eprosima::fastdds::dds;
namespace rtps = eprosima::fastdds::rtps;
using eprosima::fastrtps::Duration_t;
using Payload = eprosima::fastrtps::rtps::SerializedPayload_t;
using Key = eprosima::fastrtps::rtps::InstanceHandle_t;

/// So many bytes, and nothing that needs to be converted.
class BytesType final : public dds::TopicDataType {
public:
    explicit BytesType(std::size_t size) : size_(static_cast<std::uint32_t>(size)) {
        setName("Bytes");
        m_typeSize = size_ + kEncapsulation;
        m_isGetKeyDefined = false;
        auto_fill_type_object(false);
        auto_fill_type_information(false);
    }

    bool serialize(void* data, Payload* payload) override {
        std::memset(payload->data, 0, kEncapsulation);
        payload->data[1] = CDR_LE;
        payload->encapsulation = CDR_LE;
        std::memcpy(payload->data + kEncapsulation, data, size_);
        payload->length = size_ + kEncapsulation;
        return true;
    }

    bool deserialize(Payload* payload, void* data) override {
        std::memcpy(data, payload->data + kEncapsulation, size_);
        return true;
    }

    std::function<std::uint32_t()> getSerializedSizeProvider(void* /*data*/) override {
        return [this] { return m_typeSize; };
    }

    void* createData() override { return new unsigned char[size_]; }
    void deleteData(void* data) override { delete[] static_cast<unsigned char*>(data); }
    bool getKey(void* /*data*/, Key* /*key*/, bool /*force*/) override { return false; }
    bool is_bounded() const override { return true; }
    bool is_plain() const override { return true; }
    bool construct_sample(void* /*memory*/) const override { return true; }

private:
    static constexpr std::uint32_t kEncapsulation = 4;

    std::uint32_t size_;
};

template <typename Pointer>
Pointer Required(Pointer made, const char* what) {
    if (made == nullptr) {
        throw std::runtime_error(std::string("Fast DDS makes no ") + what);
    }
    return made;
}

constexpr std::uint32_t kHeadroom = 1 << 16;        // of a message, for what Fast DDS adds
constexpr std::int64_t kPatience = 10'000'000'000;  // ns
constexpr std::uint32_t kHeartbeat = 5'000'000;     // ns; by default a loss is found after 3 s
constexpr std::size_t kFewest = 4;
constexpr std::size_t kMost = 4096;

std::int32_t SamplesOf(const Cell& cell) {
    return static_cast<std::int32_t>(
        std::clamp<std::size_t>(cell.ring / cell.size, kFewest, kMost));
}

/// A participant with a topic, in shared memory alone.
class Participant {
public:
    Participant(const std::string& name, const Cell& cell) {
        dds::DomainParticipantQos qos;
        qos.transport().use_builtin_transports = false;
        const auto transport = std::make_shared<rtps::SharedMemTransportDescriptor>();
        transport->segment_size(2 * static_cast<std::uint32_t>(cell.ring));
        transport->max_message_size(static_cast<std::uint32_t>(cell.size) + kHeadroom);
        transport->port_queue_capacity(2 * static_cast<std::uint32_t>(SamplesOf(cell)));
        qos.transport().user_transports.push_back(transport);
        participant_ =
            Required(dds::DomainParticipantFactory::get_instance()->create_participant(0, qos),
                     "participant");
        const dds::TypeSupport type(new BytesType(cell.size));
        (void)type.register_type(participant_);
        topic_ =
            Required(participant_->create_topic(name, "Bytes", dds::TOPIC_QOS_DEFAULT), "topic");
    }
    ~Participant() {
        (void)participant_->delete_contained_entities();
        (void)dds::DomainParticipantFactory::get_instance()->delete_participant(participant_);
    }
    Participant(const Participant&) = delete;
    Participant& operator=(const Participant&) = delete;

    [[nodiscard]] dds::DomainParticipant& Get() const noexcept { return *participant_; }
    [[nodiscard]] dds::Topic* Topic() const noexcept { return topic_; }

private:
    dds::DomainParticipant* participant_ = nullptr;
    dds::Topic* topic_ = nullptr;
};

enum class Way { Queues, DataSharing };

template <Way kWay, typename Qos>
Qos WithoutLoss(Qos qos, const Cell& cell) {
    qos.reliability().kind = dds::RELIABLE_RELIABILITY_QOS;
    qos.durability().kind = dds::VOLATILE_DURABILITY_QOS;
    qos.history().kind = dds::KEEP_ALL_HISTORY_QOS;
    qos.resource_limits().max_samples = SamplesOf(cell);
    qos.resource_limits().max_instances = 1;
    qos.resource_limits().max_samples_per_instance = SamplesOf(cell);
    qos.resource_limits().allocated_samples = SamplesOf(cell);
    if constexpr (kWay == Way::DataSharing) {
        qos.data_sharing().on("/dev/shm");
    } else {
        qos.data_sharing().off();
    }
    return qos;
}

template <Way kWay>
class DdsSender final : public Sender {
public:
    DdsSender(const std::string& name, const Cell& cell) : participant_(name, cell) {
        auto* publisher =
            Required(participant_.Get().create_publisher(dds::PUBLISHER_QOS_DEFAULT), "publisher");
        auto qos = WithoutLoss<kWay>(dds::DATAWRITER_QOS_DEFAULT, cell);
        qos.reliability().max_blocking_time = Duration_t(30, 0);
        qos.reliable_writer_qos().times.heartbeatPeriod = Duration_t(0, kHeartbeat);
        writer_ = Required(publisher->create_datawriter(participant_.Topic(), qos), "writer");
    }

    void AwaitPeer() override {
        dds::PublicationMatchedStatus status;
        do {
            (void)writer_->get_publication_matched_status(status);
        } while (status.current_count == 0);
    }

    /// It refuses at once when its memory is full, whatever time it is given to wait.
    void Send(Source& source, Stamp stamp) override {
        unsigned char* bytes = source.Stamped(stamp);
        const std::int64_t end = Now() + kPatience;
        while (!writer_->write(bytes)) {
            if (Now() > end) {
                throw std::runtime_error("Fast DDS does not take a message");
            }
            Relax();
        }
    }

private:
    Participant participant_;
    dds::DataWriter* writer_ = nullptr;
};

template <Way kWay>
class DdsReceiver final : public Receiver {
public:
    DdsReceiver(const std::string& name, const Cell& cell)
        : size_(cell.size), participant_(name, cell) {
        auto* subscriber = Required(
            participant_.Get().create_subscriber(dds::SUBSCRIBER_QOS_DEFAULT), "subscriber");
        reader_ = Required(
            subscriber->create_datareader(participant_.Topic(),
                                          WithoutLoss<kWay>(dds::DATAREADER_QOS_DEFAULT, cell)),
            "reader");
    }

    void AwaitPeer() override {
        dds::SubscriptionMatchedStatus status;
        do {
            (void)reader_->get_subscription_matched_status(status);
        } while (status.current_count == 0);
    }

    View Next() override {
        while (reader_->take(samples_, infos_, 1) != ReturnCode_t::RETCODE_OK ||
               !infos_[0].valid_data) {
            (void)reader_->return_loan(samples_, infos_);
            (void)reader_->wait_for_unread_message(Duration_t(1, 0));
        }
        return {samples_[0].bytes, size_};
    }

    void Release() override { (void)reader_->return_loan(samples_, infos_); }

private:
    struct Bytes {
        unsigned char bytes[kSmallestMessage];  // the first of them
    };

    std::size_t size_;
    Participant participant_;
    dds::DataReader* reader_ = nullptr;
    dds::LoanableSequence<Bytes> samples_;
    dds::SampleInfoSeq infos_;
};

}  // namespace

std::vector<Kind> Kinds() {
    return {
        NamedKind<DdsSender<Way::Queues>, DdsReceiver<Way::Queues>>("fastdds"),
        NamedKind<DdsSender<Way::DataSharing>, DdsReceiver<Way::DataSharing>>("fastdds-sharing")};
}

}  // namespace qel::bench
