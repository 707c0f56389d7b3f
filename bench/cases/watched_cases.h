// Watched primitives beside their baselines, in one run.
//
//   Handoff/*: one producer thread hands kItems pointers to one consumer
//              thread; one iteration is the whole hand-over.
//       watched:      process_data_enqueue / process_wait_on_queue +
//                     process_data_dequeue until null
//       gasyncqueue:  g_async_queue_push / g_async_queue_pop (where glib is
//                     installed for the architecture)
//       c_asyncqueue: the same shape in plain C: one mutex, one condition
//                     variable signalled only when the consumer waits, a
//                     malloc'd node per item
//       std_deque:    std::mutex + std::condition_variable + std::deque,
//                     notify_one on every push
//   PingPong/*: two threads bounce a turn through two flags; one iteration is
//              one round trip, so two wake-ups.
//       watched:      process_set_boolean / process_wait_on_boolean
//       std_condvar:  the same shape on std::mutex + std::condition_variable
//
// Compare each case with its baselines as a ratio of real time.
#ifndef VOBREL_BENCH_CASES_WATCHED_H
#define VOBREL_BENCH_CASES_WATCHED_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <cstdlib>
#include <pthread.h>
#include <thread>

#include <vobrel/watched.h>

#ifdef VOBREL_BENCH_HAVE_GLIB
#include <glib.h>
#endif

#include "cases/loop.h"

namespace vobrel::bench::watched {

constexpr int64_t kItems = 1000000;
// Items per hand-over; the counting driver runs one hand-over of its own
// count, so that its instructions per operation are per item.
inline int64_t items = kItems;

inline void *item(int64_t i)
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(i + 1));
}

inline int64_t value(void *p)
{
    return static_cast<int64_t>(reinterpret_cast<uintptr_t>(p)) - 1;
}

// Runs `consume` on its own thread while this thread runs `produce`, and
// checks that every item arrived once.
template <typename Loop, typename Produce, typename Consume> void handoff(Loop &loop, Produce produce, Consume consume)
{
    for ([[maybe_unused]] auto _ : loop) {
        int64_t sum = 0;
        std::thread consumer([&] { sum = consume(); });
        produce();
        consumer.join();
        if (sum != items * (items - 1) / 2) {
            if constexpr (requires { loop.SkipWithError(""); })
                loop.SkipWithError("items lost or duplicated");
            else
                abort();
        }
    }
    processed(loop, loop.iterations() * items);
}

template <typename Loop> void Handoff_watched(Loop &loop)
{
    watched_queue *wq = create_watched_queue("bench", 0, 0);
    handoff(
        loop,
        [&] {
            for (int64_t i = 0; i < items; ++i)
                process_data_enqueue(wq, item(i));
        },
        [&] {
            int64_t got = 0, sum = 0;
            while (got < items) {
                process_wait_on_queue(wq);
                for (void *p; (p = process_data_dequeue(wq)) != nullptr; ++got)
                    sum += value(p);
            }
            return sum;
        });
    delete_watched_queue(&wq);
}

#ifdef VOBREL_BENCH_HAVE_GLIB
template <typename Loop> void Handoff_gasyncqueue(Loop &loop)
{
    GAsyncQueue *q = g_async_queue_new();
    handoff(
        loop,
        [&] {
            for (int64_t i = 0; i < items; ++i)
                g_async_queue_push(q, item(i));
        },
        [&] {
            int64_t sum = 0;
            for (int64_t got = 0; got < items; ++got)
                sum += value(g_async_queue_pop(q));
            return sum;
        });
    g_async_queue_unref(q);
}
#endif

// The plain C asynchronous queue: the baseline on every architecture.
struct CAsyncQueue {
    struct Node {
        Node *next;
        void *data;
    };
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    Node *head = nullptr, *tail = nullptr;
    int waiting = 0;

    void push(void *data)
    {
        Node *n = static_cast<Node *>(malloc(sizeof(Node)));
        n->next = nullptr;
        n->data = data;
        pthread_mutex_lock(&mutex);
        (tail ? tail->next : head) = n;
        tail = n;
        if (waiting > 0)
            pthread_cond_signal(&cond);
        pthread_mutex_unlock(&mutex);
    }

    void *pop()
    {
        pthread_mutex_lock(&mutex);
        while (!head) {
            ++waiting;
            pthread_cond_wait(&cond, &mutex);
            --waiting;
        }
        Node *n = head;
        head = n->next;
        if (!head)
            tail = nullptr;
        pthread_mutex_unlock(&mutex);
        void *data = n->data;
        free(n);
        return data;
    }
};

template <typename Loop> void Handoff_c_asyncqueue(Loop &loop)
{
    CAsyncQueue q;
    handoff(
        loop,
        [&] {
            for (int64_t i = 0; i < items; ++i)
                q.push(item(i));
        },
        [&] {
            int64_t sum = 0;
            for (int64_t got = 0; got < items; ++got)
                sum += value(q.pop());
            return sum;
        });
}

template <typename Loop> void Handoff_std_deque(Loop &loop)
{
    std::mutex m;
    std::condition_variable cv;
    std::deque<void *> q;
    handoff(
        loop,
        [&] {
            for (int64_t i = 0; i < items; ++i) {
                {
                    std::lock_guard<std::mutex> g(m);
                    q.push_back(item(i));
                }
                cv.notify_one();
            }
        },
        [&] {
            int64_t sum = 0;
            for (int64_t got = 0; got < items; ++got) {
                std::unique_lock<std::mutex> g(m);
                cv.wait(g, [&] { return !q.empty(); });
                sum += value(q.front());
                q.pop_front();
            }
            return sum;
        });
}

// The ping-pong: this thread raises `ping` and waits for `pong`; the partner
// waits for `ping`, clears it and raises `pong`. Each side clears the flag it
// waited on before raising the other, so no rise is missed.
template <typename Loop, typename Flag> void ping_pong(Loop &loop, Flag &ping, Flag &pong)
{
    std::atomic<bool> stop{false};
    std::thread partner([&] {
        for (;;) {
            ping.wait();
            ping.set(FALSE);
            if (stop.load())
                return;
            pong.set(TRUE);
        }
    });
    for ([[maybe_unused]] auto _ : loop) {
        ping.set(TRUE);
        pong.wait();
        pong.set(FALSE);
    }
    stop = true;
    ping.set(TRUE);
    partner.join();
}

struct WatchedFlag {
    watched_boolean *wb = create_watched_boolean("bench", 0);
    ~WatchedFlag() { delete_watched_boolean(&wb); }
    void set(boolean v) { process_set_boolean(wb, v); }
    void wait() { process_wait_on_boolean(wb, 0xFFFFFFFFul); }
};

struct StdFlag {
    std::mutex m;
    std::condition_variable cv;
    boolean value = FALSE;
    void set(boolean v)
    {
        std::lock_guard<std::mutex> g(m);
        bool rising = !value && v;
        value = v;
        if (rising)
            cv.notify_one();
    }
    void wait()
    {
        std::unique_lock<std::mutex> g(m);
        cv.wait(g, [&] { return value != FALSE; });
    }
};

template <typename Loop> void PingPong_watched(Loop &loop)
{
    WatchedFlag ping, pong;
    ping_pong(loop, ping, pong);
}

template <typename Loop> void PingPong_std_condvar(Loop &loop)
{
    StdFlag ping, pong;
    ping_pong(loop, ping, pong);
}

} // namespace vobrel::bench::watched

#endif
