// SPDX-License-Identifier: Apache-2.0
#include "ovel_test.h"

#include <typeinfo>

using namespace ovel;

namespace {

struct any_test : testing::Test {
    any_test() {
        fragile::copies = 0;
    }
    ~any_test() override {
        EXPECT_EQ(fragile::alive, 0);
    }
};
using channel_test = any_test;

int number(any const& token) {
    return any_cast<fragile>(token).number;
}

TEST_F(any_test, a_value_is_read_back_as_the_type_it_decays_to) {
    any text;
    EXPECT_EQ(text.type(), typeid(void));
    text = "text";
    EXPECT_EQ(text.type(), typeid(char const*));
    std::string const source(100, 'x');
    text = source;
    any_cast<std::string>(text) += 'y';
    EXPECT_EQ(any_cast<std::string const&>(std::as_const(text)), source + 'y');
    EXPECT_EQ(any_cast<int>(&text), nullptr);
    EXPECT_EQ(any_cast<int>(static_cast<any*>(nullptr)), nullptr);
}

TEST_F(any_test, copies_are_independent_and_moves_copy_nothing) {
    any first = fragile(1);
    any second = first;
    any_cast<fragile>(second).number = 2;
    any third = std::move(second);
    first.swap(third);
    third = std::move(first);
    EXPECT_TRUE(first.empty() && second.empty());
    any& same = third;
    third = same;
    third = std::move(same);
    EXPECT_EQ(number(third), 2);
    EXPECT_EQ(fragile::alive, 1);
    third = any(first);
    EXPECT_EQ(fragile::alive, 0);
    EXPECT_EQ(fragile::copies, 1);
}

TEST_F(channel_test, tokens_come_out_in_the_order_sent_with_one_copy_each) {
    channel tokens(3);
    int sent = 0;
    int received = 0;
    // Every fill from 1 to 3 starts at every slot of the ring.
    for (int round = 0; round < 9; ++round) {
        for (int i = 0; i <= round / 3; ++i)
            tokens.send(fragile(sent++));
        for (int i = 0; i <= round / 3; ++i) {
            any token = fragile(-1);
            tokens.receive(token);
            EXPECT_EQ(number(token), received++);
            EXPECT_EQ(fragile::alive, sent - received + 1) << "the old value was destroyed";
        }
    }
    EXPECT_EQ(fragile::copies, sent);
    tokens.send(fragile(sent));  // goes with the channel
}

TEST_F(channel_test, peeking_copies_the_oldest_token_and_a_copy_that_fails_changes_nothing) {
    channel tokens(2);
    any const token = fragile(1);
    any target = fragile(2);
    tokens.send(token);
    tokens.peek(target);
    any_cast<fragile>(target).number = 5;
    fragile::copies_left = 0;
    EXPECT_THROW(any{token}, std::bad_alloc);
    EXPECT_THROW(tokens.send(token), std::bad_alloc);
    EXPECT_THROW(tokens.peek(target), std::bad_alloc);
    fragile::copies_left = -1;
    EXPECT_TRUE(target.empty());
    tokens.send(fragile(3));
    for (int const expected : {1, 3}) {
        tokens.receive(target);
        EXPECT_EQ(number(target), expected);
    }
}

TEST_F(channel_test, sending_to_a_full_and_receiving_from_an_empty_channel_fail_checks) {
    channel tokens(1);
    any token = 1;
    EXPECT_CHECK(any_cast<unsigned int>(token), "operand.type() == typeid(T)",
                 "includes/ovel_any.h");
    EXPECT_CHECK(tokens.receive(token), "_size != 0", "includes/ovel_channel.h");
    EXPECT_CHECK(tokens.peek(token), "_size != 0", "includes/ovel_channel.h");
    tokens.send(token);
    EXPECT_CHECK(tokens.send(token), "_size != _capacity", "includes/ovel_channel.h");
}

#if SIZE_MAX == UINT32_MAX
// The bytes of this buffer, counted in 32 bits, would be none at all.
TEST_F(channel_test, a_buffer_beyond_the_address_space_fails_as_out_of_memory) {
    EXPECT_THROW(channel(0x40000000u), std::bad_alloc);
}
#endif

}  // namespace
