package Tovel::Agent::Args;
# The command line the migration tool gives an agent, and the text it
# writes to the agent's standard input.
#
#   --get-status                  report the agent's state ("agentstatus")
#   --get-content-list            list the archives of the last dump
#   --dump-all                    dump every object and the server settings
#   --dump-domains=LIST           LIST is "a,b,c", or "-": one line of
#   --dump-clients=LIST             standard input holds it. Lines are read
#   --dump-resellers=LIST           in the order of the options.
#   --only-mail | --only-hosting  content filter (the later one wins)
#   --no-compress                 plain tar archives instead of tar.gz
#   --no-content                  describe the objects, pack nothing
#   --server --admin-info --no-license
#                                 server settings, administrator's data,
#                                 leave the licence out of the settings
#   --content-transport=rsync     four lines of standard input come first:
#                                 host, login, password, port
#   --migration-mode --include-app-distrib
#                                 accepted and recorded in the dump
use strict;
use warnings;
use Exporter 'import';
use Getopt::Long ();

our @EXPORT_OK = qw(parse_args);

# One line of input, without its line end; dies at end of input.
sub read_line {
    my ($in, $what) = @_;
    my $line = <$in>;
    die "Expected $what on standard input, found its end\n"
        unless defined $line;
    $line =~ s/\r?\n\z//;
    return $line;
}

sub split_names {
    my ($list) = @_;
    return grep { length } map { s/^\s+|\s+\z//gr } split /,/, $list;
}

# Parses argv (an array reference, left untouched) and reads standard input
# from in as the options ask. Returns a hash: action ("status",
# "content-list" or "dump") and, for a dump, all (bool), domains, clients,
# resellers (array references), filter ("all", "mail", "hosting"),
# compress, content, server, admin_info, license, migration_mode,
# app_distrib (bools), transport ("ssh" or "rsync") and rsync (host,
# login, password, port). Dies with a message on a bad command line.
sub parse_args {
    my ($argv, $in) = @_;
    my %args = (
        action => 'dump', all => 0, domains => [], clients => [],
        resellers => [], filter => 'all', compress => 1, content => 1,
        server => 0, admin_info => 0, license => 1, migration_mode => 0,
        app_distrib => 0, transport => 'ssh',
    );
    my %actions;
    my $list = sub {
        my ($kind) = @_;
        return sub {
            my (undef, $value) = @_;
            $value = read_line($in, "the $kind list") if $value eq '-';
            push @{ $args{$kind} }, split_names($value);
        };
    };
    my @words = @$argv;
    die "No options given\n" unless @words;
    my $parser = Getopt::Long::Parser->new(
        config => [qw(no_auto_abbrev no_ignore_case no_getopt_compat)]);
    local $SIG{__WARN__} = sub { die $_[0] };
    $parser->getoptionsfromarray(\@words,
        'get-status'          => sub { $actions{status} = 1 },
        'get-content-list'    => sub { $actions{'content-list'} = 1 },
        'dump-all'            => \$args{all},
        'dump-domains=s'      => $list->('domains'),
        'dump-clients=s'      => $list->('clients'),
        'dump-resellers=s'    => $list->('resellers'),
        'only-mail'           => sub { $args{filter} = 'mail' },
        'only-hosting'        => sub { $args{filter} = 'hosting' },
        'no-compress'         => sub { $args{compress} = 0 },
        'no-content'          => sub { $args{content} = 0 },
        'server'              => \$args{server},
        'admin-info'          => \$args{admin_info},
        'no-license'          => sub { $args{license} = 0 },
        'migration-mode'      => \$args{migration_mode},
        'include-app-distrib' => \$args{app_distrib},
        'content-transport=s' => sub {
            my (undef, $value) = @_;
            die "Unknown content transport '$value'\n"
                unless $value eq 'rsync' || $value eq 'ssh';
            $args{transport} = $value;
            return unless $value eq 'rsync';
            $args{rsync}{$_} = read_line($in, "the rsync $_")
                for qw(host login password port);
        },
    ) or die "Bad command line\n";
    die "Unexpected argument '$words[0]'\n" if @words;
    die "Give one of --get-status, --get-content-list or dump options\n"
        if keys %actions > 1 || (%actions && @$argv > 1);
    ($args{action}) = keys %actions if %actions;
    return \%args;
}

1;
