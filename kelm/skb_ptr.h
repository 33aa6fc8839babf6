// SPDX-License-Identifier: GPL-2.0
//
// The one owner of a reference on a socket buffer, until it hands it on.
#pragma once

#include "platform/skbuff.h"

class skb_ptr
{
  public:
    explicit skb_ptr(sk_buff *skb) : skb_(skb) {}
    ~skb_ptr() { consume_skb(skb_); }
    skb_ptr(const skb_ptr &) = delete;
    skb_ptr &operator=(const skb_ptr &) = delete;

    [[nodiscard]] sk_buff *get() const { return skb_; }
    explicit operator bool() const { return skb_ != nullptr; }

    // Hands the reference on with the pointer.
    [[nodiscard]] sk_buff *release()
    {
        sk_buff *skb = skb_;
        skb_ = nullptr;
        return skb;
    }

    // Gives the buffer up because of an error, not after use.
    void drop() { kfree_skb(release()); }

  private:
    sk_buff *skb_;
};
