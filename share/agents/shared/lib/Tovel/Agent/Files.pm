package Tovel::Agent::Files;
# File helpers for agents that run as root on a source host while the
# migration tool, logged in as another user, reads their results.
use strict;
use warnings;
use Digest::MD5;
use Exporter 'import';

our @EXPORT_OK = qw(write_atomically finish_atomically size_and_md5
                    read_settings);

# Files the agent leaves for the tool are world-readable: under sudo they
# belong to root, and the tool fetches them as its login user.
our $MODE = 0644;

# Writes content to path as a whole: readers (the tool polls the dumping
# status while a dump runs) see the old file or the new one, never a part.
sub write_atomically {
    my ($path, $content) = @_;
    my $temporary = "$path.tmp.$$";
    open my $out, '>:raw', $temporary or die "Cannot write $temporary: $!\n";
    print {$out} $content or die "Cannot write $temporary: $!\n";
    close $out or die "Cannot write $temporary: $!\n";
    finish_atomically($temporary, $path);
}

# Publishes a completed temporary file under its final name.
sub finish_atomically {
    my ($temporary, $path) = @_;
    chmod $MODE, $temporary or die "Cannot chmod $temporary: $!\n";
    rename $temporary, $path or die "Cannot rename $temporary to $path: $!\n";
}

# (size in bytes, MD5 sum in lower-case hexadecimal) of a file.
sub size_and_md5 {
    my ($path) = @_;
    open my $in, '<:raw', $path or die "Cannot read $path: $!\n";
    my $md5 = Digest::MD5->new->addfile($in)->hexdigest;
    close $in;
    return (-s $path, $md5);
}

# Reads "name: value" lines (blank lines and lines starting with "#" are
# skipped) into a list of [name, value] pairs, in file order, so that a
# name may repeat. A missing file gives an empty list when optional is
# true. Dies on a line without a colon.
sub read_settings {
    my ($path, $optional) = @_;
    my $in;
    unless (open $in, '<', $path) {
        return () if $optional && $!{ENOENT};
        die "Cannot read $path: $!\n";
    }
    my @pairs;
    while (my $line = <$in>) {
        $line =~ s/\s+\z//;
        next if $line =~ /^\s*(#|\z)/;
        my ($name, $value) = $line =~ /^\s*([^:\s]+)\s*:\s*(.*)\z/
            or die "$path:$.: expected 'name: value', got '$line'\n";
        push @pairs, [ $name, $value ];
    }
    close $in;
    return @pairs;
}

1;
