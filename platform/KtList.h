#pragma once

#include <cstddef>
#include <deque>
#include <initializer_list>

#include "platform/XCode.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

// Ordered list. The job's locations are popped from the front; redirect targets go to the front.
template <typename T>
class KtList {
  public:
    KtList() = default;
    KtList(std::initializer_list<T> items) : items_(items) {}

    void pushBack(const T& item) { items_.push_back(item); }
    void pushFront(const T& item) { items_.push_front(item); }
    // Moves the first element into `item`; an error, `item` untouched, when the list is empty.
    [[nodiscard]] XCode popFront(T& item) {
        if (items_.empty()) {
            return XCode::FAILURE();
        }
        item = std::move(items_.front());
        items_.pop_front();
        return testExpression(true);
    }
    bool isEmpty() const { return items_.empty(); }
    std::size_t size() const { return items_.size(); }
    void clear() { items_.clear(); }
    const T& front() const { return items_.front(); }
    const T& operator[](std::size_t index) const { return items_[index]; }

    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }

  private:
    std::deque<T> items_;
};

#pragma GCC visibility pop
