// SPDX-License-Identifier: Apache-2.0
// The parts of Asio and Beast that are not templates, compiled once.
#include <boost/asio/impl/src.hpp>
#include <boost/asio/ssl/impl/src.hpp>
#include <boost/beast/src.hpp>
