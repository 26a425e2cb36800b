package Tovel::Agent::Content;
# Content archives and the content list ("contentlist") that tells the
# migration tool which archives to fetch, with their sizes and MD5 sums.
use strict;
use warnings;
use Archive::Tar;
use Exporter 'import';
use File::Find ();
use IO::Compress::Gzip qw($GzipError);
use Tovel::Agent::Files qw(write_atomically finish_atomically size_and_md5);
use Tovel::Agent::Xml qw(element text document);

# The list is written when a dump finishes and read back afterwards, so it
# still names archives the tool has already fetched and removed: the tool
# skips those whose local copy matches the listed sum.
our $LIST_FILE_NAME = 'content-list.xml';

our @EXPORT_OK = qw(tree_entries unpacked_size pack_archive content_list);

# Regular files and directories under base/dir, as paths relative to base,
# sorted, so that an archive of an unchanged tree is the same byte for byte.
sub tree_entries {
    my ($base, $dir) = @_;
    my @entries;
    File::Find::find({ no_chdir => 1, wanted => sub {
        return unless -f $_ || -d $_;
        push @entries, substr($_, length($base) + 1);
    } }, "$base/$dir");
    return sort @entries;
}

# Total size of the regular files among entries under base.
sub unpacked_size {
    my ($base, @entries) = @_;
    my $size = 0;
    $size += -f "$base/$_" ? -s _ : 0 for @entries;
    return $size;
}

# Writes a tar archive of the entries (relative to base) to path, gzip
# compressed unless compress is false. The gzip header carries no time or
# name, so repeated dumps of the same files give the same archive.
sub pack_archive {
    my ($path, $base, $compress, @entries) = @_;
    my $tar = Archive::Tar->new;
    for my $entry (@entries) {
        my $item = Archive::Tar::File->new(file => "$base/$entry")
            or die "Cannot read $base/$entry: " . Archive::Tar->error . "\n";
        $item->rename($entry);
        $tar->add_files($item);
    }
    my $bytes = $tar->write;
    die "Cannot pack $path: " . $tar->error . "\n" unless defined $bytes;
    unless ($compress) {
        write_atomically($path, $bytes);
        return;
    }
    my $temporary = "$path.tmp.$$";
    my $gzip = IO::Compress::Gzip->new($temporary, Minimal => 1)
        or die "Cannot write $temporary: $GzipError\n";
    $gzip->print($bytes) or die "Cannot write $temporary: $GzipError\n";
    $gzip->close or die "Cannot write $temporary: $GzipError\n";
    finish_atomically($temporary, $path);
}

# The contentlist document for archives (names relative to the agent's
# directory) that lie in dir; unpacked is the size of their contents.
sub content_list {
    my ($dir, $unpacked, @names) = @_;
    my ($total, @files) = (0);
    for my $name (@names) {
        my ($size, $md5) = size_and_md5("$dir/$name");
        $total += $size;
        push @files, element('file', [ size => $size, md5sum => $md5 ],
                             text($name));
    }
    return document(element('contentlist',
                            [ size => $total, unpacked => $unpacked ],
                            @files));
}

1;
