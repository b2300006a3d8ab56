#pragma once
// Threads that start their work at the same moment. A concurrency test whose
// threads start one after another may find each done before the next begins,
// and then neither the test nor ThreadSanitizer sees the race it is about;
// a latch makes their work overlap.
//
//   RunTogether(4, [&](int t) { ... });          // start, wait for all
//   TogetherThreads posters(4, body); ...; posters.join();   // work meanwhile

#include <functional>
#include <latch>
#include <memory>
#include <thread>
#include <vector>

class TogetherThreads {
 public:
  // Starts count threads; each runs body(index) once all of them are running.
  TogetherThreads(int count, std::function<void(int)> body)
      : _start(std::make_unique<std::latch>(count)), _body(std::move(body)) {
    for (int i = 0; i < count; ++i) {
      _threads.emplace_back([this, i] {
        _start->arrive_and_wait();
        _body(i);
      });
    }
  }
  TogetherThreads(const TogetherThreads&) = delete;
  TogetherThreads& operator=(const TogetherThreads&) = delete;
  ~TogetherThreads() { join(); }

  void join() {
    for (auto& thread : _threads)
      if (thread.joinable()) thread.join();
  }

 private:
  std::unique_ptr<std::latch> _start;
  std::function<void(int)> _body;
  std::vector<std::thread> _threads;
};

inline void RunTogether(int count, std::function<void(int)> body) {
  TogetherThreads(count, std::move(body)).join();
}
