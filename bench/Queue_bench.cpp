// Queue throughput: producers enqueue messages that one consumer thread takes
// and hands to their handler. MessageLoop (with its MessageQueue and
// CountingSemaphore) against a plain std::mutex + std::condition_variable +
// std::deque queue written here, with 1 and 4 producers.
//
// Batches of kBatch messages are made beforehand (not timed); a batch's time
// runs from releasing the producers until the consumer has dispatched its
// last message. One iteration is a batch on each queue.
//
// Where the scheduler puts the threads decides more than either queue does
// (a consumer woken on its producer's CPU preempts it for every message), so
// both queues get the same placement: the consumer on the first CPU, the
// producers on the second.
#include <benchmark/benchmark.h>
#include <ipc/Message.h>
#include <ipc/MessageHandler.h>
#include <ipc/MessageLoop.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "CpuPinning.h"

namespace velacam::bench {
namespace {

using Kestrel::ipc::Message;
using Kestrel::ipc::MessageHandler;
using Kestrel::ipc::MessageLoop;

constexpr int kBatch = 8192;

// Opens once the handler has seen the expected number of messages.
class BatchHandler : public MessageHandler {
  public:
    using MessageHandler::handleMessage;

    void expect(int count) {
        std::lock_guard<std::mutex> lock(mLock);
        mRemaining = count;
    }
    void handleMessage(std::unique_ptr<Message> /*message*/) override {
        if (--mRemaining == 0) {
            std::lock_guard<std::mutex> lock(mLock);
            mDone.notify_one();
        }
    }
    void waitDone() {
        std::unique_lock<std::mutex> lock(mLock);
        mDone.wait(lock, [this] { return mRemaining == 0; });
    }

  private:
    std::mutex mLock;
    std::condition_variable mDone;
    std::atomic<int> mRemaining{0};
};

// The reference: the queue anyone would write first.
class PlainQueue {
  public:
    void enqueue(std::unique_ptr<Message> message) {
        {
            std::lock_guard<std::mutex> lock(mLock);
            mMessages.push_back(std::move(message));
        }
        mReady.notify_one();
    }
    void runConsumer() {
        while (true) {
            std::unique_ptr<Message> message;
            {
                std::unique_lock<std::mutex> lock(mLock);
                mReady.wait(lock, [this] { return mExiting || !mMessages.empty(); });
                if (mExiting) {
                    return;
                }
                message = std::move(mMessages.front());
                mMessages.pop_front();
            }
            MessageHandler* handler = message->messageHandler().get();
            handler->handleMessage(std::move(message));
        }
    }
    void requestExit() {
        {
            std::lock_guard<std::mutex> lock(mLock);
            mExiting = true;
        }
        mReady.notify_one();
    }

  private:
    std::mutex mLock;
    std::condition_variable mReady;
    std::deque<std::unique_ptr<Message>> mMessages;  // guarded by mLock
    bool mExiting = false;                           // guarded by mLock
};

// The library's loop behind the same three operations.
class LibraryLoop {
  public:
    void enqueue(std::unique_ptr<Message> message) {
        mLoop.messageQueue().enqueueMessage(std::move(message), std::chrono::milliseconds(0));
    }
    void runConsumer() { mLoop.dispatchMessages(); }
    void requestExit() { mLoop.requestExit(); }

  private:
    MessageLoop mLoop;
};

// Producer threads that each enqueue their share of a batch when released.
template <typename Queue>
class Producers {
  public:
    Producers(Queue& queue, int count) : mQueue(queue), mShares(count) {
        for (int i = 0; i < count; ++i) {
            mThreads.emplace_back([this, i] {
                const CpuPinning pinning(true, 1);
                run(i);
            });
        }
    }
    ~Producers() {
        {
            std::lock_guard<std::mutex> lock(mLock);
            mStopping = true;
        }
        mGo.notify_all();
        for (std::thread& thread : mThreads) {
            thread.join();
        }
    }

    // Makes the next batch: `perProducer` messages for each producer.
    void prepare(const std::shared_ptr<MessageHandler>& handler, int perProducer) {
        std::lock_guard<std::mutex> lock(mLock);
        for (std::vector<std::unique_ptr<Message>>& share : mShares) {
            share.clear();
            for (int i = 0; i < perProducer; ++i) {
                share.push_back(std::make_unique<Message>(handler));
            }
        }
    }
    void release() {
        {
            std::lock_guard<std::mutex> lock(mLock);
            ++mGeneration;
        }
        mGo.notify_all();
    }

  private:
    void run(int index) {
        unsigned seen = 0;
        while (true) {
            std::vector<std::unique_ptr<Message>> share;
            {
                std::unique_lock<std::mutex> lock(mLock);
                mGo.wait(lock, [&] { return mStopping || mGeneration != seen; });
                if (mStopping) {
                    return;
                }
                seen = mGeneration;
                share.swap(mShares[index]);
            }
            for (std::unique_ptr<Message>& message : share) {
                mQueue.enqueue(std::move(message));
            }
        }
    }

    Queue& mQueue;
    std::mutex mLock;
    std::condition_variable mGo;
    std::vector<std::vector<std::unique_ptr<Message>>> mShares;  // guarded by mLock
    unsigned mGeneration = 0;                                    // guarded by mLock
    bool mStopping = false;                                      // guarded by mLock
    std::vector<std::thread> mThreads;
};

// A queue with its consumer thread and its producers, ready to time
// batches.
template <typename Queue>
class QueueRig {
  public:
    explicit QueueRig(int producerCount)
        : mHandler(std::make_shared<BatchHandler>()),
          mConsumer([this] {
              const CpuPinning pinning(true, 0);
              mQueue.runConsumer();
          }),
          mProducers(std::make_unique<Producers<Queue>>(mQueue, producerCount)),
          mPerProducer(kBatch / producerCount),
          mProducerCount(producerCount) {}
    ~QueueRig() {
        mProducers.reset();
        mQueue.requestExit();
        mConsumer.join();
    }
    QueueRig(const QueueRig&) = delete;
    QueueRig& operator=(const QueueRig&) = delete;

    int messagesPerBatch() const { return mPerProducer * mProducerCount; }

    // Makes a batch (not timed), then times it from releasing the producers
    // until the consumer has dispatched its last message. Nanoseconds.
    int64_t timeBatch() {
        mProducers->prepare(mHandler, mPerProducer);
        const int count = mPerProducer * mProducerCount;
        mHandler->expect(count);
        const auto start = std::chrono::steady_clock::now();
        mProducers->release();
        mHandler->waitDone();
        const auto elapsed = std::chrono::steady_clock::now() - start;
        return std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count();
    }

  private:
    std::shared_ptr<BatchHandler> mHandler;
    Queue mQueue;
    std::thread mConsumer;
    std::unique_ptr<Producers<Queue>> mProducers;
    int mPerProducer;
    int mProducerCount;
};

double median(std::vector<int64_t>& samples) {
    const size_t middle = samples.size() / 2;
    std::nth_element(samples.begin(), samples.begin() + middle, samples.end());
    return static_cast<double>(samples[middle]);
}

// Batches on the library's loop and on the plain queue in turn (which goes
// first alternating), so that a busy neighbour slows both alike. Reports per
// repetition the median nanoseconds per message of each, "ours_ns" and
// "reference_ns", and their "ratio".
void MessageLoop_vs_PlainQueue(benchmark::State& state) {
    const int producerCount = static_cast<int>(state.range(0));
    QueueRig<LibraryLoop> ours(producerCount);
    QueueRig<PlainQueue> reference(producerCount);
    std::vector<int64_t> oursSamples;
    std::vector<int64_t> referenceSamples;
    bool oursFirst = true;
    for (auto _ : state) {
        if (oursFirst) {
            oursSamples.push_back(ours.timeBatch());
            referenceSamples.push_back(reference.timeBatch());
        } else {
            referenceSamples.push_back(reference.timeBatch());
            oursSamples.push_back(ours.timeBatch());
        }
        oursFirst = !oursFirst;
    }
    if (oursSamples.empty()) {
        return;
    }
    const double oursNs = median(oursSamples) / ours.messagesPerBatch();
    const double referenceNs = median(referenceSamples) / reference.messagesPerBatch();
    state.counters["ours_ns"] = oursNs;
    state.counters["reference_ns"] = referenceNs;
    state.counters["ratio"] = oursNs / referenceNs;
}

BENCHMARK(MessageLoop_vs_PlainQueue)->ArgName("producers")->Arg(1)->Arg(4)->UseRealTime();

}  // namespace
}  // namespace velacam::bench
