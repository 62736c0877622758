// The parts of Boost that are compiled once instead of in every source.
#include <boost/asio/impl/src.hpp>
#include <boost/asio/ssl/impl/src.hpp>
#include <boost/beast/src.hpp>
#include <boost/json/src.hpp>
