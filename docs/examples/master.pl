#!/usr/bin/perl
# SPDX-License-Identifier: Apache-2.0
# A whole master: waits for a device, stores a program on it, runs it, prints what it says.
#
#   docs/examples/master.pl PATH-ON-THE-DEVICE < PROGRAM
use strict;
use warnings;
use IO::Socket::INET;

my $path = shift // die "usage: $0 PATH < PROGRAM\n";
my $program = do { local $/; <STDIN> };
my $listener = IO::Socket::INET->new(LocalPort => 5112, Listen => 5, ReuseAddr => 1) or die "$!\n";
my $device = $listener->accept or die "$!\n";

sub ask {
    my ($limit, @arguments) = @_;
    my $fields = join ' ', map { length() . ":$_" } @arguments;
    my $record = 'SlaveTask ' . @arguments . " $fields $limit 0: 0 0 0 0 0";
    print $device "\x01" . length($record) . "\x02$record" or die "$!\n";
    my $count = '';
    take(1) eq "\x01" or die "not a frame\n";
    while ((my $byte = take(1)) ne "\x02") { $count .= $byte }
    my ($length, $rest) = take($count) =~ /^SlaveTask 0 0 (\d+):(.*)$/s or die "not a reply\n";
    my ($status, $state, $result, $errno) = split ' ', substr $rest, $length;
    return ($status, $result, $errno, substr $rest, 0, $length);
}

sub take {
    my ($bytes, $missing) = ('', shift);
    while ($missing) {
        my $got = $device->sysread($bytes, $missing, length $bytes) or die "the device is gone\n";
        $missing -= $got;
    }
    return $bytes;
}

for ([0, 'write', $path, $program], [0, 'chmodx', $path], [10, 'exec', $path]) {
    my ($status, $result, $errno, $output) = ask(@$_);
    die "$$_[1]: status $status, result $result, errno $errno\n$output" if $status;
    print $output;
}
