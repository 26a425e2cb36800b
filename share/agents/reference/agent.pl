#!/usr/bin/perl
# The reference migration agent: dumps the hosting objects of a source host
# described by a sample data tree, packs each domain's content into
# archives and lists them for the migration tool. A demonstration and test
# partner, not a production agent; README.md describes its interface.
use strict;
use warnings;
use FindBin ();
use lib "$FindBin::RealBin/lib";
use Time::HiRes ();
use Tovel::Agent::Args qw(parse_args);
use Tovel::Agent::Content qw(tree_entries unpacked_size pack_archive
                              content_list);
use Tovel::Agent::DumpingStatus;
use Tovel::Agent::Files qw(write_atomically read_settings);
use Tovel::Agent::SampleSource;
use Tovel::Agent::Xml qw(element text document xml_unescape);

my $NAME = 'reference';
my $VERSION = '1.0';
# Everything the agent reads and writes is found through its own directory,
# whatever the working directory: the tool runs it as root, through sudo.
my $DIR = $FindBin::RealBin;
my $DUMP_FILE = 'dump.xml';
my $LIST_FILE = $Tovel::Agent::Content::LIST_FILE_NAME;
my $STATUS_FILE = $Tovel::Agent::DumpingStatus::FILE_NAME;

umask 022;
exit main(@ARGV);

sub main {
    my @argv = @_;
    my $args = eval { parse_args(\@argv, \*STDIN) };
    unless ($args) {
        print STDERR "$0: $@",
            "Use --get-status, --get-content-list or dump options;",
            " see README.md.\n";
        return 2;
    }
    # The exit code, or undef after a failure.
    my $code = eval {
        my $settings = settings();
        if ($args->{action} eq 'dump') {
            dump_objects($args, $settings);
        } elsif ($args->{action} eq 'status') {
            print_status($settings);
            0;
        } else {
            print_content_list();
            0;
        }
    };
    return $code if defined $code;
    print STDERR $@;
    return 1;
}

# agent.conf beside the agent: "source-root: DIR" (default: sample-source
# beside the agent) and "object-delay: SECONDS" (default 0), a pause after
# each dumped object that lets a watcher see the dump progress.
sub settings {
    my %settings = (source_root => "$DIR/sample-source", object_delay => 0);
    for my $pair (read_settings("$DIR/agent.conf", 1)) {
        my ($key, $value) = @$pair;
        if ($key eq 'source-root') {
            $settings{source_root} = $value;
        } elsif ($key eq 'object-delay' && $value =~ /^\d+(\.\d+)?\z/) {
            $settings{object_delay} = $value;
        } else {
            die "$DIR/agent.conf: bad setting '$key: $value'\n";
        }
    }
    return \%settings;
}

# --get-status: the agent is usable when its source data can be read.
sub print_status {
    my ($settings) = @_;
    my $source = Tovel::Agent::SampleSource->load($settings->{source_root});
    print document(element('agentstatus', [],
        element('statusfile', [], text($STATUS_FILE)),
        element('agent', [ name => $NAME, version => $VERSION ]),
        element('directory', [], text($DIR)),
        element('source-root', [], text($settings->{source_root})),
        element('objects', [ map { ("${_}s" => $source->count($_)) }
                             qw(reseller client domain) ]),
        element('perl', [ version => sprintf('%vd', $^V) ])));
}

# --get-content-list: the list written by the last dump, as it was then.
sub print_content_list {
    open my $in, '<:raw', "$DIR/$LIST_FILE"
        or die "No dump has been made in $DIR ($LIST_FILE: $!)\n";
    local $/;
    print <$in>;
    close $in;
}

sub dump_objects {
    my ($args, $settings) = @_;
    my $status = Tovel::Agent::DumpingStatus->new("$DIR/$STATUS_FILE");
    return 0 if eval { write_dump($args, $settings, $status); 1 };
    my $error = $@ =~ s/\s+\z//r;
    eval { $status->update(state => 'failed', current => undef,
                           error => $error) };
    print STDERR "$error\n";
    return 1;
}

sub write_dump {
    my ($args, $settings, $status) = @_;
    my $source = Tovel::Agent::SampleSource->load($settings->{source_root});
    my $chosen = $source->selection($args);
    remove_previous_dump();
    my @objects;
    for my $kind (qw(reseller client domain)) {
        push @objects, map { [ $kind, $_ ] } @{ $chosen->{$kind} };
    }
    $status->update(state => 'dumping', total => scalar @objects);
    my $content = { archives => [], unpacked => 0 };
    my @elements = settings_elements($source, $args);
    for my $i (0 .. $#objects) {
        my ($kind, $name) = @{ $objects[$i] };
        $status->update(current => $name, type => $kind);
        my $object = $source->object($kind, $name);
        push @elements, $kind eq 'domain'
            ? domain_element($object, $args, $content)
            : account_element($kind, $object);
        $status->update(completed => $i + 1);
        Time::HiRes::sleep($settings->{object_delay})
            if $settings->{object_delay} > 0;
    }
    write_atomically("$DIR/$LIST_FILE", content_list(
        $DIR, $content->{unpacked}, @{ $content->{archives} }));
    write_atomically("$DIR/$DUMP_FILE",
                     document(dump_element($args, @elements)));
    $status->update(state => 'finished', current => undef);
}

# A new dump replaces the last one: its archives (those the tool has not
# fetched and removed yet), its list and its description go first.
sub remove_previous_dump {
    if (open my $in, '<', "$DIR/$LIST_FILE") {
        local $/;
        my $list = <$in>;
        close $in;
        for my $name ($list =~ m{<file\b[^>]*>([^<]*)</file>}g) {
            $name = xml_unescape($name);
            unlink "$DIR/$name" unless $name =~ m{/|^\.\.?\z};
        }
    }
    for my $file ($LIST_FILE, $DUMP_FILE) {
        unlink "$DIR/$file" or $!{ENOENT}
            or die "Cannot remove $DIR/$file: $!\n";
    }
}

sub dump_element {
    my ($args, @elements) = @_;
    return element('migration-dump', [
        agent => $NAME,
        created => Tovel::Agent::DumpingStatus::utc_now(),
        selection => $args->{all} ? 'all' : 'selected',
        filter => $args->{filter},
        content => $args->{content} ? 'archives' : 'none',
        compression => $args->{compress} ? 'gzip' : 'none',
        'content-transport' => $args->{transport},
        'migration-mode' => $args->{migration_mode} ? 'yes' : 'no',
        'app-distrib' => $args->{app_distrib} ? 'yes' : 'no',
    ], @elements);
}

# The server settings and the administrator's data, as the dump asks.
sub settings_elements {
    my ($source, $args) = @_;
    my @elements;
    if ($args->{all} || $args->{server}) {
        my $server = $source->server;
        my @children =
            map { element('ip', [], text($_)) } @{ $server->{ip} || [] };
        my $license = $source->license;
        push @children, element('license', [ key => $license->{key},
                                             expires => $license->{expires} ])
            if $license->{key} && ($args->{all} || $args->{license});
        push @elements, element('server', [ hostname => $server->{hostname},
                                            os => $server->{os} ], @children);
    }
    if ($args->{all} || $args->{admin_info}) {
        my $admin = $source->admin;
        push @elements, element('admin-info',
            [ map { ($_ => $admin->{$_}) } qw(name email company) ]);
    }
    return @elements;
}

sub account_element {
    my ($kind, $object) = @_;
    return element($kind, [ map { ($_ => $object->{$_}) }
                            qw(name owner contact email) ]);
}

# The domain's description; its web files and its mailboxes are packed
# into one archive each unless the dump leaves them out.
sub domain_element {
    my ($domain, $args, $content) = @_;
    my $dir = $domain->{dir};
    my @parts;
    if ($args->{filter} ne 'mail' && -d "$dir/site") {
        my @entries = tree_entries($dir, 'site');
        push @parts, element('hosting', content_figures($dir, @entries),
            pack_part($domain, 'web', $args, $content, @entries));
    }
    if ($args->{filter} ne 'hosting' && -d "$dir/mail") {
        my @entries = tree_entries($dir, 'mail');
        push @parts, element('mail', content_figures($dir, @entries),
            mailbox_elements($dir, @entries),
            pack_part($domain, 'mail', $args, $content, @entries));
    }
    return element('domain',
                   [ map { ($_ => $domain->{$_}) } qw(name owner ip) ],
                   @parts);
}

# Attributes: the number of regular files and their total size.
sub content_figures {
    my ($dir, @entries) = @_;
    my $files = grep { -f "$dir/$_" } @entries;
    return [ files => $files, size => unpacked_size($dir, @entries) ];
}

# One element per mailbox (mail/BOX) with its number of messages: the
# files in the maildir's cur/ and new/.
sub mailbox_elements {
    my ($dir, @entries) = @_;
    my @boxes;
    for my $box (grep { m{^mail/[^/]+\z} && -d "$dir/$_" } @entries) {
        my $messages = grep { m{^\Q$box\E/(?:cur|new)/[^/]+\z} } @entries;
        push @boxes, element('mailbox', [ name => substr($box, 5),
                                          messages => $messages ]);
    }
    return @boxes;
}

# Packs one part of a domain (unless --no-content) and returns its
# "archive" element, or nothing. The archive lies directly in the agent's
# directory: the tool looks for an earlier copy by the archive's base name.
sub pack_part {
    my ($domain, $part, $args, $content, @entries) = @_;
    return () unless $args->{content};
    my $name = "$domain->{name}_$part.tar" . ($args->{compress} ? '.gz' : '');
    pack_archive("$DIR/$name", $domain->{dir}, $args->{compress}, @entries);
    push @{ $content->{archives} }, $name;
    $content->{unpacked} += unpacked_size($domain->{dir}, @entries);
    return element('archive', [], text($name));
}
