// SPDX-License-Identifier: Apache-2.0
// What the suites share that run on either store, with one server for all tests of a suite.
#ifndef OVEL_DURABLE_FIXTURE_H
#define OVEL_DURABLE_FIXTURE_H

#include "ovel_durable.h"
#include "ovel_durable_server.h"

#include <gtest/gtest.h>

#include <exception>
#include <memory>
#include <mutex>
#include <string>

namespace ovel_durable_test {

// What a call throws.
template <class Call>
std::string error_of(Call const& call) {
    try {
        call();
    } catch (std::exception const& thrown) {
        return thrown.what();
    }
    return "no error";
}

inline bool contains(std::string const& text, std::string const& part) {
    return text.find(part) != text.npos;
}

class on_either_store : public testing::TestWithParam<char const*> {
protected:
    static void TearDownTestSuite() {
        _server.reset();
    }
    void SetUp() override {
        if (GetParam() == std::string("postgresql")) {
            if (_server == nullptr)
                _server = std::make_unique<server>("fsync = off\n");
            _url = _server->url();
        } else {
            _url = "sqlite:" + _folder.path() + "/store";
        }
    }

    // A name that no other test has.
    static std::string new_name() {
        static int number = 0;
        return "net " + std::to_string(++number);
    }

    ovel::durable::options quick(unsigned int threads = 2) {
        ovel::durable::options chosen;
        chosen.threads = threads;
        chosen.poll = 0.2;
        chosen.lease = 5;
        chosen.report = [this](std::string const& line) {
            std::lock_guard const hold(_lock);
            _reports += line + '\n';
        };
        return chosen;
    }

    std::string reports() {
        std::lock_guard const hold(_lock);
        return _reports;
    }

    inline static std::unique_ptr<server> _server;
    folder _folder;
    std::string _url;
    std::string _name = new_name();

private:
    std::mutex _lock;
    std::string _reports;
};

}  // namespace ovel_durable_test

#endif
