// SPDX-License-Identifier: Apache-2.0
// The parts of the WebSocket library that are no templates.
#include <boost/asio/impl/src.hpp>
#include <boost/beast/src.hpp>
