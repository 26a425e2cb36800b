#!/usr/bin/perl
# The scout: reports facts about the source host of a migration as XML on
# standard output. The migration tool feeds it to a remote "perl" on its
# standard input, as root, so it is one self-contained file that uses core
# modules only and reads nothing from its input. A fact that cannot be
# found is left out; the scout fails only when it cannot write.
use strict;
use warnings;
use POSIX ();
use Sys::Hostname ();

# Escaped for attribute values and text; see the agents' Xml module.
sub xml_escape {
    my ($text) = @_;
    $text = '' unless defined $text;
    $text =~ s/[\x00-\x08\x0B\x0C\x0E-\x1F]//g;
    $text =~ s/&/&amp;/g;
    $text =~ s/</&lt;/g;
    $text =~ s/>/&gt;/g;
    $text =~ s/"/&quot;/g;
    $text =~ s/\n/&#10;/g;
    $text =~ s/\t/&#9;/g;
    return $text;
}

# element(NAME, [ATTR => VALUE, ...], TEXT or CHILD...): one element as
# text; undefined attribute values are left out, children are indented.
sub element {
    my ($name, $attributes, @children) = @_;
    my $open = $name;
    my @pairs = @{ $attributes || [] };
    while (my ($key, $value) = splice @pairs, 0, 2) {
        $open .= sprintf ' %s="%s"', $key, xml_escape($value) if defined $value;
    }
    return "<$open/>" unless @children;
    return "<$open>" . xml_escape($children[0]) . "</$name>"
        if @children == 1 && $children[0] !~ /^</;
    my $body = join "\n", @children;
    $body =~ s/^/  /mg;
    return "<$open>\n$body\n</$name>";
}

sub read_file {
    my ($path) = @_;
    open my $in, '<', $path or return undef;
    local $/;
    my $text = <$in>;
    close $in;
    return $text;
}

# The first path of program in PATH plus the usual system directories.
sub which {
    my ($program) = @_;
    my %seen;
    my @usual = qw(/usr/local/sbin /usr/local/bin /usr/sbin /usr/bin
                   /sbin /bin);
    for my $dir (split(/:/, $ENV{PATH} || ''), @usual) {
        next if !length $dir || $seen{$dir}++;
        return "$dir/$program" if -f "$dir/$program" && -x _;
    }
    return undef;
}

# Standard output of a program found by which(), with standard error
# discarded; undef when it is missing or fails.
sub run {
    my ($program, @args) = @_;
    my $path = which($program) or return undef;
    my $pid = open my $from, '-|';
    return undef unless defined $pid;
    if ($pid == 0) {
        open STDERR, '>', '/dev/null';
        open STDIN, '<', '/dev/null';
        exec { $path } $program, @args or POSIX::_exit(127);
    }
    local $/;
    my $output = <$from>;
    return close($from) ? $output : undef;
}

sub host_element {
    my ($sysname, undef, $release, $version, $machine) = POSIX::uname();
    my %os;
    for my $line (split /\n/, read_file('/etc/os-release') // '') {
        my ($key, $value) = $line =~ /^([A-Z_]+)=(.*)\z/ or next;
        $os{$key} = $value =~ s/^"(.*)"\z/$1/r;
    }
    my ($uptime) = split ' ', read_file('/proc/uptime') // '';
    return (
        element('host', [ name => Sys::Hostname::hostname(),
                          uptime => defined $uptime ? int $uptime : undef ]),
        element('os', [ name => $sysname, release => $release,
                        version => $version, machine => $machine,
                        distribution => $os{PRETTY_NAME}, id => $os{ID},
                        'version-id' => $os{VERSION_ID} ]),
    );
}

sub user_element {
    my $name = getpwuid($>);
    return element('user', [ uid => $<, euid => $>, name => $name ]);
}

sub hardware_elements {
    my $cpuinfo = read_file('/proc/cpuinfo') // '';
    my $cpus = () = $cpuinfo =~ /^processor\s*:/mg;
    my %memory;
    for my $line (split /\n/, read_file('/proc/meminfo') // '') {
        $memory{$1} = $2 if $line =~ /^(\w+):\s+(\d+) kB/;
    }
    return (
        element('cpus', [ count => $cpus || undef ]),
        element('memory', [ 'total-kb' => $memory{MemTotal},
                            'available-kb' => $memory{MemAvailable} ]),
    );
}

# The file systems that hold the usual places of hosting data.
sub filesystems_element {
    my (@children, %seen);
    for my $path (grep { -d } qw(/ /home /var /var/www /srv /tmp)) {
        my $df = run('df', '-P', '-k', $path) // next;
        my (undef, $line) = split /\n/, $df;
        next unless defined $line;
        my (undef, $size, undef, $free, undef, $mount) = split ' ', $line, 6;
        next if !defined $mount || $seen{$mount}++;
        push @children, element('filesystem', [ mount => $mount,
                                                'size-kb' => $size,
                                                'free-kb' => $free ]);
    }
    return element('filesystems', [], @children);
}

sub addresses_element {
    my @addresses;
    my $ip = run('ip', '-o', 'addr', 'show');
    if (defined $ip) {
        @addresses = $ip =~ m{\binet6?\s+([0-9A-Fa-f:.]+)/}g;
    } else {
        @addresses = split ' ', run('hostname', '-I') // '';
    }
    return element('addresses', [],
                   map { element('address', [], $_) } @addresses);
}

# What an agent needs on this host: programs and Perl modules.
sub tools_elements {
    my @programs = map {
        element('program', [ name => $_, path => which($_) ])
    } qw(sh tar gzip md5sum rsync sudo mysqldump);
    my @modules = map {
        my $module = $_;
        my $version = eval "require $module; \$${module}::VERSION";
        element('module', [ name => $module,
                            present => defined $version ? 'yes' : 'no',
                            version => $version ]);
    } qw(Archive::Tar IO::Compress::Gzip Digest::MD5 File::Find Getopt::Long);
    return (
        element('programs', [], @programs),
        element('perl', [ version => sprintf('%vd', $^V), path => $^X ],
                @modules),
    );
}

my $report = element('scout-result', [
        version => 1,
        time => POSIX::strftime('%Y-%m-%dT%H:%M:%SZ', gmtime),
    ],
    host_element(), user_element(), hardware_elements(),
    filesystems_element(), addresses_element(), tools_elements());
print qq{<?xml version="1.0" encoding="UTF-8"?>\n$report\n} or exit 1;
close STDOUT or exit 1;
exit 0;
