package Tovel::Agent::Xml;
# Just enough XML writing for the agents' small documents: escaped text,
# elements with ordered attributes, indented children.
use strict;
use warnings;
use Exporter 'import';

our @EXPORT_OK = qw(xml_escape xml_unescape element text document);

# Line ends and tabs become character references, so that indenting a
# document never changes the text it carries. Characters XML 1.0 forbids
# are dropped.
sub xml_escape {
    my ($text) = @_;
    $text = '' unless defined $text;
    $text =~ s/[\x00-\x08\x0B\x0C\x0E-\x1F]//g;
    $text =~ s/&/&amp;/g;
    $text =~ s/</&lt;/g;
    $text =~ s/>/&gt;/g;
    $text =~ s/"/&quot;/g;
    $text =~ s/\n/&#10;/g;
    $text =~ s/\r/&#13;/g;
    $text =~ s/\t/&#9;/g;
    return $text;
}

# The text that xml_escape() escaped, back again.
sub xml_unescape {
    my ($text) = @_;
    my %named = (amp => '&', lt => '<', gt => '>', quot => '"', apos => "'");
    $text =~ s{&(?:#(\d+)|#x([0-9A-Fa-f]+)|(\w+));}
              { defined $1 ? chr $1
              : defined $2 ? chr hex $2
              : $named{$3} // "&$3;" }ge;
    return $text;
}

# Character content for element().
sub text { return xml_escape($_[0]) }

# element(NAME, [ATTR => VALUE, ...], CHILD...): the element as text.
# Attributes keep their order; an undefined value leaves the attribute out.
# Children are results of element() (each put on its own indented line) or
# one result of text() (kept on the element's line).
sub element {
    my ($name, $attributes, @children) = @_;
    my $open = $name;
    my @pairs = @{ $attributes || [] };
    while (my ($key, $value) = splice @pairs, 0, 2) {
        $open .= sprintf ' %s="%s"', $key, xml_escape($value) if defined $value;
    }
    return "<$open/>" unless @children;
    my $body = join '', @children;
    return "<$open>$body</$name>" unless $body =~ /^</;
    $body = join "\n", @children;
    $body =~ s/^/  /mg;
    return "<$open>\n$body\n</$name>";
}

# The whole document around its root element.
sub document {
    my ($root) = @_;
    return qq{<?xml version="1.0" encoding="UTF-8"?>\n$root\n};
}

1;
